#include "analysis/Differences.h"

#include <algorithm>
#include <map>
#include <tuple>
#include <utility>

namespace lofter::analyze {

namespace {

// A plugin's name, and which one of that name it is.
using Identity = std::pair<std::string, std::size_t>;

struct Samples {
    std::vector<Microseconds> before;
    std::vector<Microseconds> after;
};

std::optional<Microseconds> Median(std::vector<Microseconds> samples) {
    if (samples.empty()) {
        return std::nullopt;
    }
    std::sort(samples.begin(), samples.end());
    const std::size_t middle = samples.size() / 2;
    if (samples.size() % 2 == 1) {
        return samples[middle];
    }
    return samples[middle - 1] + (samples[middle] - samples[middle - 1]) / 2;
}

bool IsLarge(Microseconds growth, Microseconds before, const Threshold& threshold) {
    constexpr double kWhole = 100;
    return growth > 0 && growth >= threshold.time &&
           static_cast<double>(growth) * kWhole >= threshold.percent * static_cast<double>(before);
}

Difference DifferenceOf(const Samples& samples, const Threshold& threshold) {
    Difference difference{Median(samples.before), Median(samples.after)};
    if (!difference.before || !difference.after) {
        difference.change = difference.after ? Change::New : difference.before ? Change::Gone : Change::Same;
    } else if (IsLarge(*difference.after - *difference.before, *difference.before, threshold)) {
        difference.change = Change::Slower;
    } else if (IsLarge(*difference.before - *difference.after, *difference.before, threshold)) {
        difference.change = Change::Faster;
    }
    return difference;
}

Microseconds SizeOf(const Difference& difference) {
    return std::abs(difference.after.value_or(0) - difference.before.value_or(0));
}

class SampleCollector {
  public:
    void Add(const std::vector<BootDurations>& boots, std::vector<Microseconds> Samples::*side) {
        for (const BootDurations& boot : boots) {
            if (boot.length) {
                (lengths.*side).push_back(*boot.length);
            }
            std::map<std::string, std::size_t> counts;
            for (const BootDurations::Plugin& plugin : boot.plugins) {
                (plugins[{plugin.name, counts[plugin.name]++}].*side).push_back(plugin.duration);
            }
        }
    }

    Samples lengths;
    std::map<Identity, Samples> plugins;
};

}  // namespace

bool Differences::HasRegressed() const {
    return boot.change == Change::Slower || std::any_of(plugins.begin(), plugins.end(), [](const Plugin& plugin) {
               return plugin.difference.change == Change::Slower;
           });
}

Differences Compare(const std::vector<BootDurations>& before, const std::vector<BootDurations>& after,
                    const Threshold& threshold) {
    SampleCollector collected;
    collected.Add(before, &Samples::before);
    collected.Add(after, &Samples::after);

    Differences differences{DifferenceOf(collected.lengths, threshold), {}};
    for (const auto& [identity, samples] : collected.plugins) {
        differences.plugins.push_back({identity.first, DifferenceOf(samples, threshold)});
    }
    std::stable_sort(differences.plugins.begin(), differences.plugins.end(),
                     [](const Differences::Plugin& left, const Differences::Plugin& right) {
                         return std::tuple(left.difference.change, -SizeOf(left.difference)) <
                                std::tuple(right.difference.change, -SizeOf(right.difference));
                     });
    return differences;
}

}  // namespace lofter::analyze
