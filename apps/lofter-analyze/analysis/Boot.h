// A boot as it is analysed: the plugins of a host, the barriers that tie them together and, with a log, when each ran.
//
// A value, made once of the inputs and never changed by what looks at it. Times are microseconds since lofter's start.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "plugins/description/PluginDescription.h"

namespace lofter::analyze {

using Microseconds = std::int64_t;
using PluginIndex = std::size_t;
using BarrierIndex = std::size_t;

// Where something was read, with the path as findings show it. Lines and columns count from 1; 0 is unknown.
struct Place {
    std::string file;
    int line = 0;
    int column = 0;
};

struct Timing {
    Microseconds start = 0;
    std::optional<Microseconds> end;  // nothing for a plugin that the operator skipped: its barriers open at its start
};

struct BootPlugin {
    explicit BootPlugin(PluginDescription pluginDescription) : description(std::move(pluginDescription)) {}

    PluginDescription description;
    bool isKindKnown = true;  // not when only a dump, a log or a capture names it
    Place place;
    std::string keptOutBy;  // why it does not run; empty when it does. Then it counts as started from the beginning
    std::optional<Timing> timing;  // nothing without a log, and when the log says that it did not run

    // Made of the description's links by MakeBoot: in reading order, repetitions included.
    std::vector<BarrierIndex> requiredBarriers;
    std::vector<BarrierIndex> providedBarriers;

    const std::string& Name() const { return description.name; }
    bool Runs() const { return keptOutBy.empty(); }
    bool HasRun() const { return timing && timing->end; }
};

struct BootBarrier {
    std::string name;
    std::vector<PluginIndex> providers;  // ascending, each once; those that are kept out included
    std::vector<PluginIndex> requirers;
};

// What a log says about the run as a whole.
struct RunRecord {
    std::optional<Microseconds> kernel;  // how long the kernel had been up when lofter started
    Microseconds end = 0;
    bool isParallel = false;
};

struct Boot {
    std::vector<BootPlugin> plugins;    // in the order in which lofter creates their nodes, or in that of the log
    std::vector<BootBarrier> barriers;  // by name
    std::optional<RunRecord> run;       // nothing without a log
};

Boot MakeBoot(std::vector<BootPlugin> plugins, std::optional<RunRecord> run);

}  // namespace lofter::analyze
