// Plugins that wait for each other for ever.
#pragma once

#include <string>
#include <vector>

#include "analysis/Boot.h"

namespace lofter::analyze {

// The plugin provides the barrier that the next one waits for; the last one's is what the first waits for.
struct CycleStep {
    PluginIndex plugin;
    BarrierIndex barrier;
};
using Cycle = std::vector<CycleStep>;

// One for each strongly connected part of what runs: a shortest loop in it, of several the least by names, beginning at
// its smallest name. Cycles are in the order of their first names.
std::vector<Cycle> FindCycles(const Boot& boot);

// A strongly connected part: plugins of which each waits for every other one for ever, and the barriers between them.
struct Knot {
    std::vector<PluginIndex> plugins;
    std::vector<BarrierIndex> barriers;
};

// Of what runs, each in ascending order. Whatever is on a loop is in exactly one of them.
std::vector<Knot> FindKnots(const Boot& boot);

// "a -[net]-> b -[disk]-> a"
std::string ShownCycle(const Boot& boot, const Cycle& cycle);

}  // namespace lofter::analyze
