// Why each plugin began when it did.
#pragma once

#include <optional>
#include <vector>

#include "analysis/Boot.h"

namespace lofter::analyze {

struct Wait {
    Microseconds ready = 0;  // when the last of its barriers was open
    Microseconds wait = 0;   // from then to its start, for a free thread; never negative
    // The barrier that opened last, and who opened it; nothing when the plugin was ready from the beginning.
    std::optional<BarrierIndex> barrier;
    std::optional<PluginIndex> opener;
};

// When those that wait for the plugin could go on: at its end, or at its start when the operator skipped it. Nothing
// for a plugin that holds nobody up, because it is kept out or did not run.
std::optional<Microseconds> ThroughAt(const BootPlugin& plugin);

// One for each plugin of a boot with a log; nothing for those that have no start. Of barriers that opened at the same
// time the first by name counts, of plugins that were through at the same time the first of the boot.
std::vector<std::optional<Wait>> FindWaits(const Boot& boot);

// From each plugin back to the one that opened its last barrier, ending with this one; first to last.
// Ends where a log that does not belong to the graph would lead round in a circle.
std::vector<PluginIndex> ChainTo(PluginIndex last, const std::vector<std::optional<Wait>>& waits);

struct Span {
    Microseconds begin;
    Microseconds end;
};

// For each of these spans, which follow each other in time, the plugins that ran in it for a while, by their starts.
std::vector<std::vector<PluginIndex>> FindRunning(const Boot& boot, const std::vector<Span>& spans);

// The plugin that ended last; nothing when none has run.
std::optional<PluginIndex> LastToEnd(const Boot& boot);

}  // namespace lofter::analyze
