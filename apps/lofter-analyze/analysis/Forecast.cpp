#include "analysis/Forecast.h"

#include <algorithm>
#include <deque>
#include <functional>
#include <queue>
#include <tuple>

#include "analysis/Chains.h"
#include "analysis/Waits.h"
#include "graph/Executor.h"
#include "graph/Node.h"

namespace lofter::analyze {

namespace {

class ForecastNode : public Node {
  public:
    explicit ForecastNode(std::optional<PluginIndex> nodePlugin) : Node({}, kDefaultClass), plugin(nodePlugin) {}
    void Start() override {}
    std::string DotAttributes() const override { return {}; }

    const std::optional<PluginIndex> plugin;  // nothing for a barrier
};

class Simulation {
  public:
    Simulation(const Boot& boot, const ForecastModel& forecastModel)
        : model(forecastModel), now(forecastModel.begin), executor(0, false) {
        GraphLock lock;
        Link(boot);
        executor.Reserve(plugins.size() + barriers.size());
        for (ForecastNode& node : plugins) {
            node.ScheduleStart(executor);
        }
    }

    Forecast Run() {
        GraphLock lock;
        Pick();
        while (!running.empty()) {
            const Running next = running.top();
            running.pop();
            now = next.end;
            plugins[next.plugin].RunQueued(executor);
            Pick();
        }
        return std::move(forecast);
    }

  private:
    struct Running {
        Microseconds end;
        std::size_t number;  // of starts before this one
        PluginIndex plugin;

        bool operator>(const Running& other) const { return std::tie(end, number) > std::tie(other.end, other.number); }
    };

    void Link(const Boot& boot) {
        for (std::size_t number = 0; number < boot.barriers.size(); ++number) {
            barriers.emplace_back(std::nullopt);
        }
        for (PluginIndex index = 0; index < boot.plugins.size(); ++index) {
            const BootPlugin& plugin = boot.plugins[index];
            ForecastNode& node = plugins.emplace_back(index);
            for (const BarrierIndex barrier : plugin.requiredBarriers) {
                node.AddDependency(barriers[barrier]);
            }
            for (const BarrierIndex barrier : plugin.providedBarriers) {
                node.AddDependent(barriers[barrier]);
            }
            if (!plugin.Runs()) {
                node.MarkStarted();
            }
        }
    }

    // As long as a thread is free and a node is ready.
    void Pick() {
        while (running.size() < model.threads) {
            auto* node = static_cast<ForecastNode*>(executor.Take());
            if (node == nullptr) {
                return;
            }
            if (node->plugin) {
                Begin(*node->plugin);
            } else {
                node->RunQueued(executor);
            }
        }
    }

    void Begin(PluginIndex plugin) {
        const Microseconds end = now + model.durations[plugin];
        running.push({end, forecast.steps.size(), plugin});
        forecast.steps.push_back({plugin, now, end});
        forecast.makespan = forecast.steps.size() == 1 ? end : std::max(forecast.makespan, end);
    }

    const ForecastModel& model;
    Microseconds now;
    std::deque<ForecastNode> plugins;
    std::deque<ForecastNode> barriers;
    Executor executor;
    std::priority_queue<Running, std::vector<Running>, std::greater<>> running;
    Forecast forecast;
};

// By the starts, in their order: those that have ended by then no longer count.
std::size_t MostAtOnce(const Boot& boot) {
    std::vector<Timing> timings;
    for (const BootPlugin& plugin : boot.plugins) {
        if (plugin.Runs() && plugin.HasRun()) {
            timings.push_back(*plugin.timing);
        }
    }
    std::sort(timings.begin(), timings.end(), [](const Timing& left, const Timing& right) {
        return std::tie(left.start, left.end) < std::tie(right.start, right.end);
    });
    std::priority_queue<Microseconds, std::vector<Microseconds>, std::greater<>> ends;
    std::size_t most = 1;
    for (const Timing& timing : timings) {
        while (!ends.empty() && ends.top() <= timing.start) {
            ends.pop();
        }
        ends.push(*timing.end);
        most = std::max(most, ends.size());
    }
    return most;
}

Microseconds FirstStart(const Boot& boot) {
    std::optional<Microseconds> first;
    for (const BootPlugin& plugin : boot.plugins) {
        if (plugin.Runs() && plugin.timing) {
            first = std::min(first.value_or(plugin.timing->start), plugin.timing->start);
        }
    }
    return first.value_or(0);
}

}  // namespace

Forecast MakeForecast(const Boot& boot, const ForecastModel& model) {
    return Simulation(boot, model).Run();
}

ForecastModel MeasuredModel(const Boot& boot) {
    const bool isParallel = boot.run && boot.run->isParallel;
    return {MeasuredDurations(boot), isParallel ? MostAtOnce(boot) : 1, FirstStart(boot)};
}

std::optional<Microseconds> MeasuredMakespan(const Boot& boot) {
    const std::optional<PluginIndex> last = LastToEnd(boot);
    return last ? boot.plugins[*last].timing->end : std::nullopt;
}

}  // namespace lofter::analyze
