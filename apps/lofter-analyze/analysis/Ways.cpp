#include "analysis/Ways.h"

#include <algorithm>
#include <limits>
#include <tuple>

namespace lofter::analyze {

namespace {

constexpr std::size_t kFar = std::numeric_limits<std::size_t>::max();

class WaySearch {
  public:
    WaySearch(const Boot& analysedBoot, PluginIndex lastPlugin, std::size_t mostWays)
        : boot(analysedBoot),
          last(lastPlugin),
          most(mostWays),
          pluginDistance(boot.plugins.size(), kFar),
          barrierDistance(boot.barriers.size(), kFar) {
        Measure();
    }

    Ways From(PluginIndex first) {
        if (boot.plugins[first].Runs() && boot.plugins[last].Runs()) {
            Follow(first);
        }
        return std::move(ways);
    }

  private:
    // How many barriers lie between each node and the end. That of the end itself is the length of a loop.
    void Measure() {
        std::vector<PluginIndex> reached{last};
        std::size_t distance = 0;
        while (!reached.empty()) {
            ++distance;
            std::vector<PluginIndex> next;
            for (const PluginIndex plugin : reached) {
                for (const BarrierIndex barrier : boot.plugins[plugin].requiredBarriers) {
                    if (barrierDistance[barrier] != kFar) {
                        continue;
                    }
                    barrierDistance[barrier] = distance;
                    for (const PluginIndex provider : boot.barriers[barrier].providers) {
                        if (boot.plugins[provider].Runs() && pluginDistance[provider] == kFar) {
                            pluginDistance[provider] = distance;
                            next.push_back(provider);
                        }
                    }
                }
            }
            reached = std::move(next);
        }
    }

    // Where to go on, the first by names last: over this barrier to this plugin.
    using Choices = std::vector<WayStep>;

    // Depth first, in the order of the names. Every choice leads to the end, so no step is in vain.
    void Follow(PluginIndex first) {
        if (pluginDistance[first] == kFar) {
            return;
        }
        std::vector<Choices> turns{ChoicesAt(first, pluginDistance[first])};
        Way way;
        std::vector<PluginIndex> plugins{first};
        while (!turns.empty()) {
            if (turns.back().empty()) {
                turns.pop_back();
                plugins.pop_back();
                if (!way.empty()) {
                    way.pop_back();
                }
                continue;
            }
            const WayStep choice = turns.back().back();
            turns.back().pop_back();
            way.push_back({plugins.back(), choice.barrier});
            const std::size_t left = barrierDistance[choice.barrier] - 1;
            if (left > 0) {
                plugins.push_back(choice.plugin);
                turns.push_back(ChoicesAt(choice.plugin, left));
                continue;
            }
            if (ways.shortest.size() == most) {
                ways.hasMore = true;
                return;
            }
            ways.shortest.push_back(way);
            way.pop_back();
        }
    }

    // Where a shortest way may go on from a plugin that is so far from the end.
    Choices ChoicesAt(PluginIndex plugin, std::size_t distance) const {
        Choices choices;
        std::vector<BarrierIndex> barriers = boot.plugins[plugin].providedBarriers;
        std::sort(barriers.begin(), barriers.end());
        barriers.erase(std::unique(barriers.begin(), barriers.end()), barriers.end());
        for (const BarrierIndex barrier : barriers) {
            if (barrierDistance[barrier] != distance) {
                continue;
            }
            for (const PluginIndex requirer : boot.barriers[barrier].requirers) {
                if (distance == 1 ? requirer == last
                                  : boot.plugins[requirer].Runs() && pluginDistance[requirer] == distance - 1) {
                    choices.push_back({requirer, barrier});
                }
            }
        }
        std::sort(choices.begin(), choices.end(), [this](const WayStep& left, const WayStep& right) {
            return std::tie(left.barrier, boot.plugins[left.plugin].Name(), left.plugin) >
                   std::tie(right.barrier, boot.plugins[right.plugin].Name(), right.plugin);
        });
        return choices;
    }

    const Boot& boot;
    const PluginIndex last;
    const std::size_t most;
    std::vector<std::size_t> pluginDistance;
    std::vector<std::size_t> barrierDistance;
    Ways ways;
};

}  // namespace

Ways FindWays(const Boot& boot, PluginIndex from, PluginIndex to, std::size_t most) {
    return WaySearch(boot, to, most).From(from);
}

}  // namespace lofter::analyze
