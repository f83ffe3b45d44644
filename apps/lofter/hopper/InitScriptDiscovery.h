// Turns the init.d scripts that the host's service configuration tool lists into daemon plugins.
//
// The tool prints one script per line: its path, white space, its start priority. Further words of a line mean nothing
// here.
#pragma once

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

#include "graph/Graph.h"
#include "hopper/CommandRunner.h"
#include "plugins/Plugin.h"

namespace lofter {

struct InitScript {
    std::string path;
    std::int32_t priority;
};

// Reads the tool's output to its end. A line that does not fit is skipped with a warning that quotes it. When reading
// fails, what was read counts, and a warning says so: "unable to read all init.d scripts and their priorities\n".
std::vector<InitScript> ReadInitScripts(std::istream& output);

// Runs a shell command that prints such a list and reads it. A command that fails is reported with a warning and what
// it printed counts. Throws Exception "Failed obtaining list of init.d scripts" when there is no pipe to read from.
std::vector<InitScript> ListInitScripts(const std::string& command);

// What daemon plugins are made with. All of it outlives them.
struct DaemonSurroundings {
    Graph& graph;
    Activator& activator;
    CommandSettings commandSettings;
};

// One plugin per script, in the graph's group of its priority. The flag is 0 when the daemons are to be started, 1 when
// they are to be stopped. The daemons that the boot run itself looks after are left out when starting; stopping means
// every script, on purpose. A plugin that cannot be made is reported, and the others are made all the same.
std::vector<Plugin*> MakeDaemonPlugins(const std::vector<InitScript>& scripts, int startStopFlag,
                                       const DaemonSurroundings& surroundings);

// The plugins of all init.d scripts of the host, in the order in which the tool lists them. Throws what ListInitScripts
// throws.
std::vector<Plugin*> DiscoverInitDaemons(int startStopFlag, const DaemonSurroundings& surroundings);

}  // namespace lofter
