#include "analysis/Gains.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "analysis/Chains.h"

namespace lofter::analyze {

namespace {

constexpr std::size_t kMostPlugins = 1'000;
constexpr std::size_t kCandidatesOfMore = 100;

std::vector<PluginIndex> CandidatesOf(const Boot& boot, const ForecastModel& model) {
    std::vector<PluginIndex> candidates = StartOrder(boot);
    std::sort(candidates.begin(), candidates.end());
    if (candidates.size() > kMostPlugins) {
        const Chains chains = FindChains(boot, model.durations);
        std::stable_sort(candidates.begin(), candidates.end(), [&](PluginIndex left, PluginIndex right) {
            return *chains.slack[left] < *chains.slack[right];
        });
        candidates.resize(kCandidatesOfMore);
    }
    return candidates;
}

}  // namespace

std::vector<Gain> RankGains(const Boot& boot, const ForecastModel& model, Microseconds makespan) {
    ForecastModel changed = model;
    std::vector<Gain> gains;
    for (const PluginIndex plugin : CandidatesOf(boot, model)) {
        const Microseconds duration = std::exchange(changed.durations[plugin], 0);
        // One thread is never idle as long as there is work.
        const bool isGainKnown = duration == 0 || model.threads == 1;
        gains.push_back({plugin, isGainKnown ? duration : makespan - MakeForecast(boot, changed).makespan});
        changed.durations[plugin] = duration;
    }
    std::sort(gains.begin(), gains.end(), [&](const Gain& left, const Gain& right) {
        return std::tie(right.gain, boot.plugins[left.plugin].Name(), left.plugin) <
               std::tie(left.gain, boot.plugins[right.plugin].Name(), right.plugin);
    });
    return gains;
}

std::vector<ThreadsForecast> ForecastMoreThreads(const Boot& boot, const ForecastModel& model, Microseconds makespan) {
    constexpr int kMostDoublings = 4;
    const Microseconds least = model.begin + FindChains(boot, model.durations).floor;
    std::vector<ThreadsForecast> forecasts;
    ForecastModel more = model;
    for (int doublings = 0; doublings < kMostDoublings; ++doublings) {
        if (makespan <= least || more.threads >= boot.plugins.size()) {
            break;
        }
        more.threads = std::min(2 * more.threads, boot.plugins.size());
        makespan = MakeForecast(boot, more).makespan;
        forecasts.push_back({more.threads, makespan});
    }
    return forecasts;
}

}  // namespace lofter::analyze
