// All that the options name, read and put together: the host or the dump, and the log.
#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "analysis/Boot.h"
#include "analysis/Finding.h"
#include "input/Options.h"
#include "input/ProfilingLogFile.h"

namespace lofter::analyze {

// A line or a plugin that cannot be read is lost alone, with a warning, "lofter-analyze: warning: <text>", a line each.
// A root without a log gives a boot without times. Throws InputError for an input that cannot be read.
Boot ReadBoot(const InputOptions& options, std::ostream& warnings);

// How an input that the command line names is called in messages: "-" is "standard input".
std::string ShownInput(const std::string& path);

// The pieces of it, for whoever needs one of them only or something else in between.

struct InputPlugins {
    std::vector<BootPlugin> plugins;
    std::vector<Finding> findings;  // about the files of a host; none of a dump
};

// Of the host, or of the dump.
InputPlugins ReadPlugins(const InputOptions& options, std::ostream& warnings);

// The plugins with the times of the log, if there is one.
Boot WithLog(std::vector<BootPlugin> plugins, const InputOptions& options, std::ostream& warnings);

// A log that the command line names. Nothing when it holds no boot.
std::optional<LoggedBoot> ReadGivenLog(const std::string& path, std::ostream& warnings);

}  // namespace lofter::analyze
