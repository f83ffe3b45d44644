#include "analysis/Waits.h"

#include <algorithm>
#include <set>

namespace lofter::analyze {

namespace {

struct Opening {
    Microseconds time;
    PluginIndex opener;
};

// When the last of those that provide it was through. Nothing when nobody who provides it had to run first.
std::optional<Opening> OpeningOf(const BootBarrier& barrier, const std::vector<BootPlugin>& plugins) {
    std::optional<Opening> opening;
    for (const PluginIndex provider : barrier.providers) {
        if (const std::optional<Microseconds> through = ThroughAt(plugins[provider])) {
            if (!opening || *through > opening->time) {
                opening = {*through, provider};
            }
        }
    }
    return opening;
}

}  // namespace

std::optional<Microseconds> ThroughAt(const BootPlugin& plugin) {
    if (!plugin.Runs() || !plugin.timing) {
        return std::nullopt;
    }
    return plugin.timing->end.value_or(plugin.timing->start);
}

std::vector<std::optional<Wait>> FindWaits(const Boot& boot) {
    std::vector<std::optional<Opening>> openings;
    openings.reserve(boot.barriers.size());
    for (const BootBarrier& barrier : boot.barriers) {
        openings.push_back(OpeningOf(barrier, boot.plugins));
    }

    std::vector<std::optional<Wait>> waits(boot.plugins.size());
    for (PluginIndex index = 0; index < boot.plugins.size(); ++index) {
        const BootPlugin& plugin = boot.plugins[index];
        if (!plugin.Runs() || !plugin.timing) {
            continue;
        }
        Wait& wait = waits[index].emplace();
        for (const BarrierIndex barrier : plugin.requiredBarriers) {
            const std::optional<Opening>& opening = openings[barrier];
            const auto isLater = [&] {
                return !wait.barrier || opening->time > wait.ready ||
                       (opening->time == wait.ready && barrier < *wait.barrier);
            };
            if (opening && isLater()) {
                wait.ready = opening->time;
                wait.barrier = barrier;
                wait.opener = opening->opener;
            }
        }
        wait.wait = std::max<Microseconds>(plugin.timing->start - wait.ready, 0);
    }
    return waits;
}

std::vector<PluginIndex> ChainTo(PluginIndex last, const std::vector<std::optional<Wait>>& waits) {
    std::vector<PluginIndex> chain{last};
    std::set<PluginIndex> seen{last};
    while (waits[chain.back()] && waits[chain.back()]->opener) {
        const PluginIndex opener = *waits[chain.back()]->opener;
        if (!seen.insert(opener).second) {
            break;
        }
        chain.push_back(opener);
    }
    std::reverse(chain.begin(), chain.end());
    return chain;
}

std::vector<std::vector<PluginIndex>> FindRunning(const Boot& boot, const std::vector<Span>& spans) {
    std::vector<PluginIndex> coming;
    for (PluginIndex index = 0; index < boot.plugins.size(); ++index) {
        if (boot.plugins[index].Runs() && boot.plugins[index].HasRun()) {
            coming.push_back(index);
        }
    }
    const auto timingOf = [&](PluginIndex plugin) -> const Timing& {
        return *boot.plugins[plugin].timing;
    };
    std::stable_sort(coming.begin(), coming.end(),
                     [&](PluginIndex left, PluginIndex right) { return timingOf(left).start < timingOf(right).start; });

    std::vector<std::vector<PluginIndex>> found;
    std::vector<PluginIndex> running;
    auto next = coming.begin();
    for (const Span& span : spans) {
        for (; next != coming.end() && timingOf(*next).start < span.end; ++next) {
            running.push_back(*next);
        }
        std::erase_if(running, [&](PluginIndex plugin) { return *timingOf(plugin).end <= span.begin; });
        found.push_back(span.begin < span.end ? running : std::vector<PluginIndex>{});
    }
    return found;
}

std::optional<PluginIndex> LastToEnd(const Boot& boot) {
    std::optional<PluginIndex> last;
    for (PluginIndex index = 0; index < boot.plugins.size(); ++index) {
        const BootPlugin& plugin = boot.plugins[index];
        if (plugin.Runs() && plugin.HasRun() && (!last || *plugin.timing->end > *boot.plugins[*last].timing->end)) {
            last = index;
        }
    }
    return last;
}

}  // namespace lofter::analyze
