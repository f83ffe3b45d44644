// The plugins that a host or a dump has, and those that a log has, brought together.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "analysis/Boot.h"
#include "input/ProfilingLogFile.h"

namespace lofter::analyze {

// Whose order the nodes have. A host that was copied has lost its directory's; those that the log lacks come last then.
enum class NodeOrder { OfPlugins, OfLog };

// Plugins get the log's times, matched by name, those of one name in their order, first those that run. What the
// options keep out gets none. A plugin that only the log has is one without links. Warnings show the log by the name
// that is given.
std::vector<BootPlugin> MatchLog(std::vector<BootPlugin> plugins, const LoggedBoot& log, NodeOrder order,
                                 const std::string& logName, std::ostream& warnings);

}  // namespace lofter::analyze
