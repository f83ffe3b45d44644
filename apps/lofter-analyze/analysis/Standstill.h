// A boot that goes no further: what still runs, what waits behind it, what waits for itself.
#pragma once

#include <cstddef>
#include <vector>

#include "analysis/Boot.h"
#include "analysis/Cycles.h"

namespace lofter::analyze {

enum class Progress { NotBegun, Running, Over };

// One that runs has begun, so everything that it waited for is over, whether or not somebody saw it end.
std::vector<Progress> WithWhatMustBeOver(const Boot& boot, std::vector<Progress> progress);

struct Standstill {
    // Holding up so many plugins that did not begin, directly or behind others.
    struct Holder {
        PluginIndex plugin;
        std::size_t holdsUp;
    };
    struct Waiter {
        PluginIndex plugin;
        std::vector<BarrierIndex> barriers;  // that it requires and that are not open, each once
        std::vector<PluginIndex> heldBy;     // at the root of it: what runs, then members of cycles; the first 100
        std::size_t holdsUp;
    };
    struct Loop {
        Cycle cycle;
        std::size_t holdsUp;  // outside of the cycle
    };

    // Those that hold up more come first, then those of lesser names.
    std::vector<Holder> running;
    std::vector<Waiter> waiting;  // without those that wait for a free thread only, in the end
    std::vector<Loop> loops;      // of plugins that did not begin
};

// The progress of each plugin; what the options keep out counts as over, however it is given.
Standstill FindStandstill(const Boot& boot, const std::vector<Progress>& progress);

}  // namespace lofter::analyze
