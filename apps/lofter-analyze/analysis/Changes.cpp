#include "analysis/Changes.h"

#include <algorithm>
#include <set>

namespace lofter::analyze {

namespace {

bool HasLink(const BootPlugin& plugin, BarrierLink::Direction direction, const std::string& barrier) {
    const std::vector<BarrierLink>& links = plugin.description.links;
    return std::find(links.begin(), links.end(), BarrierLink{direction, barrier}) != links.end();
}

}  // namespace

bool ChangedBoot::Drop(const PluginWait& wait) {
    using enum BarrierLink::Direction;
    std::set<std::string> barriers;
    for (const BarrierLink& link : plugins[wait.after].description.links) {
        if (link.direction == Requires && HasLink(plugins[wait.before], Provides, link.barrier)) {
            barriers.insert(link.barrier);
        }
    }
    std::vector<BarrierLink>& links = plugins[wait.after].description.links;
    for (const std::string& barrier : barriers) {
        const std::string replacement = NewBarrier();
        if (ReplaceProvider(barrier, wait.before, replacement)) {
            std::replace(links.begin(), links.end(), BarrierLink{Requires, barrier},
                         BarrierLink{Requires, replacement});
        } else {
            std::erase(links, BarrierLink{Requires, barrier});
        }
    }
    return !barriers.empty();
}

// Makes the others that provide the barrier provide the replacement, too. False when there are none.
bool ChangedBoot::ReplaceProvider(const std::string& barrier, PluginIndex provider, const std::string& replacement) {
    bool hasOthers = false;
    for (PluginIndex index = 0; index < plugins.size(); ++index) {
        if (index != provider && HasLink(plugins[index], BarrierLink::Direction::Provides, barrier)) {
            plugins[index].description.Provide(replacement);
            hasOthers = true;
        }
    }
    return hasOthers;
}

void ChangedBoot::Add(const PluginWait& wait) {
    const std::string barrier = NewBarrier();
    plugins[wait.before].description.Provide(barrier);
    plugins[wait.after].description.Require(barrier);
}

// Longer than any other, so that it is none of the boot's.
std::string ChangedBoot::NewBarrier() {
    std::size_t longest = 0;
    for (const BootBarrier& barrier : original.barriers) {
        longest = std::max(longest, barrier.name.size());
    }
    return std::string(longest + 1, '-') + std::to_string(++newBarriers);
}

Boot ChangedBoot::Make() const {
    std::vector<BootPlugin> made = plugins;
    for (BootPlugin& plugin : made) {
        plugin.requiredBarriers.clear();
        plugin.providedBarriers.clear();
    }
    return MakeBoot(std::move(made), original.run);
}

}  // namespace lofter::analyze
