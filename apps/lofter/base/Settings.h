// The settings record: what the command line asked for.
//
// The program's one is created on first use under the graph lock and never destroyed; the entry takes it and hands it
// to whoever needs it. The command line fills it before any other thread exists. Afterwards only the run sequence
// (parallel, thread count, plugin directory) and interactive mode, which is serial, change it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace lofter {

struct Settings {
    Settings();

    static Settings& Instance();

    bool verbose = false;
    bool parallel = false;
    bool randomize = false;
    bool interactive = false;
    bool trace = false;
    std::uint32_t threadCount = 1;
    // Seconds since the epoch when the record was created, unless given. Only reported, in the profiling log: no
    // generator is seeded with it, on purpose.
    std::int64_t randomSeed;
    std::string pluginDirectory;
    std::vector<std::string> disabledPlugins;
    std::vector<std::string> interactiveModeRequirements;
    std::string method;
    bool invoke = false;
    bool daemonWait = false;
    std::uint32_t daemonWaitTimeout = 40;  // seconds
    char** environment = nullptr;          // the process environment, not owned
};

}  // namespace lofter
