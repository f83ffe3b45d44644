// The shortest ways through the graph from one plugin to another that waits for it.
#pragma once

#include <cstddef>
#include <vector>

#include "analysis/Boot.h"

namespace lofter::analyze {

// A step leads from a plugin over a barrier that it provides to the next plugin, which requires it.
struct WayStep {
    PluginIndex plugin;
    BarrierIndex barrier;
};
using Way = std::vector<WayStep>;  // without the plugin at its end

struct Ways {
    std::vector<Way> shortest;  // by names
    bool hasMore = false;       // than were asked for
};

// Over plugins that run. None when the second does not wait for the first, or one of them is kept out; from a plugin to
// itself lead only loops.
Ways FindWays(const Boot& boot, PluginIndex from, PluginIndex to, std::size_t most);

}  // namespace lofter::analyze
