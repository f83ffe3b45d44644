// The command line: what may be asked for, and which combinations make sense.
//
// Options are handled one at a time, in order. Those that the whole program reads go straight into the settings record;
// the rest is what the run sequence needs once.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/Settings.h"

namespace lofter {

// Options that live only until the run sequence has used them.
struct RunOptions {
    bool init = false;
    bool daemon = false;
    bool dump = false;
    std::optional<std::string> dumpPath;  // absent: standard output
    std::vector<std::string> plugins;     // in order, duplicates kept
    std::set<std::string> pluginFlags;
    std::set<std::string> runOnce;
    std::string pluginDirectory;
};

struct CommandLine {
    RunOptions options;
    std::optional<int> exitStatus;  // set when the process is to end now, with everything said already
};

// Parses and checks. Usage text goes to standard output, the complaint about an unusable option to standard error, and
// the complaint about a combination that makes no sense to the log. The parser's own state is reset first, so that it
// may be called again.
CommandLine ParseCommandLine(int argc, char** argv, Settings& settings);

}  // namespace lofter
