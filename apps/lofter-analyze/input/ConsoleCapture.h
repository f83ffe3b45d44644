// A capture of a boot's console, kernel log or syslog, or of several of them in one: which plugins began, which ended.
//
// lofter's lines are found by what they say, whatever stands before them. The kernel's log has a line for the beginning
// and one for the end of each plugin; lofter's own log has only the beginnings and the failures, unless it traces.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "analysis/Boot.h"
#include "analysis/Standstill.h"

namespace lofter::analyze {

struct CapturedBoot {
    struct Failure {
        PluginIndex plugin;
        std::string reason;
    };

    // The given plugins, then those that only the capture names. What began counts as not kept out.
    std::vector<BootPlugin> plugins;
    std::vector<Progress> progress;      // one for each; plugins of one name began and ended in their order
    std::vector<Failure> failures;       // in the order of the plugins' first mention
    std::vector<std::string> strangers;  // that only the capture names, or that the options keep out
    bool hasBegun = false;               // whether any plugin did
};

// Of several boots the last counts: one begins with the kernel's banner, with lofter's first line when plugins begin
// behind it, or when a plugin begins that had begun. A capture without a line about ends is completed by what must have
// ended before others began: in a serial boot, everything but the last to begin.
CapturedBoot ParseConsoleCapture(std::string_view content, std::vector<BootPlugin> plugins, bool isParallel);

}  // namespace lofter::analyze
