// The profiling log of a boot: when each plugin ran.
#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "analysis/Boot.h"

namespace lofter::analyze {

struct LoggedPlugin {
    std::string name;
    int line = 0;                  // of the log
    std::optional<Timing> timing;  // nothing when it did not run
};

struct LoggedBoot {
    std::vector<LoggedPlugin> plugins;  // in the log's order, which is that of lofter's nodes
    RunRecord run;
};

// Sections of daemon runs are ignored; of several boots the last counts. Nothing when there is none. A line that is
// none of a profiling log is lost alone. Warnings show the log by the name that is given. Times count from lofter's own
// start or, when the log does not have it, from the first plugin's.
std::optional<LoggedBoot> ParseProfilingLog(std::string_view content, const std::string& shownName,
                                            std::ostream& warningOutput);

}  // namespace lofter::analyze
