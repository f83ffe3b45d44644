// All that is worth saying about a host's plugins before it boots.
#pragma once

#include <ostream>
#include <vector>

#include "analysis/Finding.h"
#include "input/Options.h"

namespace lofter::analyze {

// Sorted. Of a dump only what can be said about the graph. Warnings and errors are those of ReadHost and ReadPlugins.
std::vector<Finding> Verify(const InputOptions& options, std::ostream& warnings);

}  // namespace lofter::analyze
