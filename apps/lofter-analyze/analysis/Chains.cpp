#include "analysis/Chains.h"

#include <algorithm>
#include <iterator>
#include <limits>

namespace lofter::analyze {

namespace {

using Lengths = std::vector<std::optional<Microseconds>>;

// The length of the longest chain that ends with each plugin, in the order in which they can start.
class ChainEnds {
  public:
    ChainEnds(const Boot& analysedBoot, const std::vector<Microseconds>& pluginDurations)
        : before(analysedBoot.plugins.size()), boot(analysedBoot), durations(pluginDurations) {
        opens.resize(boot.barriers.size(), 0);
        for (const PluginIndex plugin : StartOrder(boot)) {
            before[plugin] = 0;
            for (const BarrierIndex barrier : boot.plugins[plugin].requiredBarriers) {
                before[plugin] = std::max(*before[plugin], opens[barrier]);
            }
            for (const BarrierIndex barrier : boot.plugins[plugin].providedBarriers) {
                opens[barrier] = std::max(opens[barrier], EndOf(plugin));
            }
        }
    }

    Microseconds EndOf(PluginIndex plugin) const { return *before[plugin] + durations[plugin]; }

    // From the beginning of the longest chain that ends with the plugin.
    std::vector<PluginIndex> ChainTo(PluginIndex last) const {
        std::vector<PluginIndex> chain{last};
        while (const std::optional<PluginIndex> leader = LeaderOf(chain.back())) {
            chain.push_back(*leader);
        }
        std::reverse(chain.begin(), chain.end());
        return chain;
    }

    Lengths before;

  private:
    // Whoever makes the chain before the plugin as long as it is.
    std::optional<PluginIndex> LeaderOf(PluginIndex plugin) const {
        for (const BarrierIndex barrier : boot.plugins[plugin].requiredBarriers) {
            if (opens[barrier] != *before[plugin]) {
                continue;
            }
            for (const PluginIndex provider : boot.barriers[barrier].providers) {
                if (before[provider] && EndOf(provider) == *before[plugin]) {
                    return provider;
                }
            }
        }
        return std::nullopt;
    }

    const Boot& boot;
    const std::vector<Microseconds>& durations;
    std::vector<Microseconds> opens;
};

// The length of the longest chain behind each plugin.
Lengths LongestBehind(const Boot& boot, const std::vector<Microseconds>& durations) {
    const std::vector<PluginIndex> order = StartOrder(boot);
    Lengths behind(boot.plugins.size());
    std::vector<Microseconds> behindBarrier(boot.barriers.size(), 0);
    for (auto plugin = order.rbegin(); plugin != order.rend(); ++plugin) {
        Microseconds longest = 0;
        for (const BarrierIndex barrier : boot.plugins[*plugin].providedBarriers) {
            longest = std::max(longest, behindBarrier[barrier]);
        }
        behind[*plugin] = longest;
        for (const BarrierIndex barrier : boot.plugins[*plugin].requiredBarriers) {
            behindBarrier[barrier] = std::max(behindBarrier[barrier], longest + durations[*plugin]);
        }
    }
    return behind;
}

// How many plugins a barrier still waits for, and a plugin how many barriers.
class Outstanding {
  public:
    explicit Outstanding(const Boot& analysedBoot)
        : boot(analysedBoot), providers(boot.barriers.size(), 0), barriers(boot.plugins.size(), 0) {
        for (BarrierIndex barrier = 0; barrier < boot.barriers.size(); ++barrier) {
            for (const PluginIndex provider : boot.barriers[barrier].providers) {
                providers[barrier] += boot.plugins[provider].Runs() ? 1 : 0;
            }
            for (const PluginIndex requirer : boot.barriers[barrier].requirers) {
                barriers[requirer] += providers[barrier] > 0 ? 1 : 0;
            }
        }
    }

    bool IsReady(PluginIndex plugin) const { return boot.plugins[plugin].Runs() && barriers[plugin] == 0; }

    // Adds those that are ready then.
    void Finish(PluginIndex plugin, std::vector<PluginIndex>& ready) {
        std::vector<BarrierIndex> provided = boot.plugins[plugin].providedBarriers;
        std::sort(provided.begin(), provided.end());
        provided.erase(std::unique(provided.begin(), provided.end()), provided.end());
        for (const BarrierIndex barrier : provided) {
            if (--providers[barrier] > 0) {
                continue;
            }
            for (const PluginIndex requirer : boot.barriers[barrier].requirers) {
                --barriers[requirer];
                if (IsReady(requirer)) {
                    ready.push_back(requirer);
                }
            }
        }
    }

  private:
    const Boot& boot;
    std::vector<std::size_t> providers;
    std::vector<std::size_t> barriers;
};

}  // namespace

std::vector<PluginIndex> StartOrder(const Boot& boot) {
    Outstanding outstanding(boot);
    std::vector<PluginIndex> order;
    for (PluginIndex plugin = 0; plugin < boot.plugins.size(); ++plugin) {
        if (outstanding.IsReady(plugin)) {
            order.push_back(plugin);
        }
    }
    for (std::size_t next = 0; next < order.size(); ++next) {
        outstanding.Finish(order[next], order);
    }
    return order;
}

std::vector<std::optional<Microseconds>> LongestBefore(const Boot& boot, const std::vector<Microseconds>& durations) {
    return ChainEnds(boot, durations).before;
}

Chains FindChains(const Boot& boot, const std::vector<Microseconds>& durations) {
    const ChainEnds ends(boot, durations);
    const Lengths behind = LongestBehind(boot, durations);
    Chains chains;
    std::optional<PluginIndex> last;
    for (PluginIndex plugin = 0; plugin < boot.plugins.size(); ++plugin) {
        if (ends.before[plugin] && (!last || ends.EndOf(plugin) > chains.floor)) {
            last = plugin;
            chains.floor = ends.EndOf(plugin);
        }
    }
    if (last) {
        chains.longest = ends.ChainTo(*last);
    }
    for (PluginIndex plugin = 0; plugin < boot.plugins.size(); ++plugin) {
        chains.slack.emplace_back();
        if (ends.before[plugin]) {
            chains.slack.back() = chains.floor - (ends.EndOf(plugin) + *behind[plugin]);
        }
    }
    return chains;
}

std::vector<Microseconds> MeasuredDurations(const Boot& boot) {
    std::vector<Microseconds> durations;
    durations.reserve(boot.plugins.size());
    for (const BootPlugin& plugin : boot.plugins) {
        durations.push_back(plugin.Runs() && plugin.HasRun() ? *plugin.timing->end - plugin.timing->start : 0);
    }
    BoundDurations(durations);
    return durations;
}

void BoundDurations(std::vector<Microseconds>& durations) {
    constexpr Microseconds kLongestSum = std::numeric_limits<Microseconds>::max() / 4;
    const Microseconds longest = kLongestSum / std::max<Microseconds>(std::ssize(durations), 1);
    for (Microseconds& duration : durations) {
        duration = std::min(duration, longest);
    }
}

}  // namespace lofter::analyze
