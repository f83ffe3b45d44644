// Chains of plugins, each of which waits for the one before it, measured by durations.
#pragma once

#include <optional>
#include <vector>

#include "analysis/Boot.h"

namespace lofter::analyze {

// The plugins that run and can start, each behind everything that it waits for. Missing are those that a cycle holds
// up.
std::vector<PluginIndex> StartOrder(const Boot& boot);

// For each plugin the length of the longest chain before it, its own duration excluded; nothing for those that
// StartOrder misses. Durations are one for each plugin of the boot.
std::vector<std::optional<Microseconds>> LongestBefore(const Boot& boot, const std::vector<Microseconds>& durations);

struct Chains {
    Microseconds floor = 0;  // the longest chain of all, which no number of threads beats
    std::vector<PluginIndex> longest;
    // For each plugin the floor minus the longest chain through it; nothing for those that StartOrder misses.
    std::vector<std::optional<Microseconds>> slack;
};

Chains FindChains(const Boot& boot, const std::vector<Microseconds>& durations);

// How long each plugin took; 0 for those that did not run. Bounded.
std::vector<Microseconds> MeasuredDurations(const Boot& boot);

// Makes them as small as it takes for the sum of all of them to be a number that there is: logs may say anything.
void BoundDurations(std::vector<Microseconds>& durations);

}  // namespace lofter::analyze
