#include "analysis/Forecast.h"

#include <algorithm>
#include <random>

#include <gtest/gtest.h>

#include "support/RandomBoot.h"
#include "support/TestBoot.h"
#include "support/TestGraph.h"

namespace lofter::analyze {
namespace {

using test::BootOf;

// "name@start-end" in the order of the picks.
std::string Steps(const Boot& boot, const Forecast& forecast) {
    std::string text;
    for (const ForecastStep& step : forecast.steps) {
        text += (text.empty() ? "" : " ") + boot.plugins[step.plugin].Name() + '@' + std::to_string(step.start) + '-' +
                std::to_string(step.end);
    }
    return text;
}

std::string StepsWith(const Boot& boot, std::size_t threads) {
    ForecastModel model = MeasuredModel(boot);
    model.threads = threads;
    return Steps(boot, MakeForecast(boot, model));
}

std::string Order(const Boot& boot) {
    std::vector<PluginIndex> plugins;
    for (const ForecastStep& step : MakeForecast(boot, MeasuredModel(boot)).steps) {
        plugins.push_back(step.plugin);
    }
    return test::Names(boot, plugins);
}

TEST(Forecast, OfOneThreadRunsOnePluginAfterTheOther) {
    const Boot boot = BootOf(
        "alone: ran 40 50\n"
        "net: requires disk provides link ran 20 40\n"
        "hw: provides disk ran 5 20\n"
        "ntp: requires link ran 50 51");
    EXPECT_EQ(StepsWith(boot, 1), "hw@5-20 net@20-40 alone@40-50 ntp@50-51");
}

TEST(Forecast, OfSeveralThreadsRunsAtOnceWhatIsReady) {
    const Boot boot = BootOf(
        "alone: ran 40 50\n"
        "net: requires disk provides link ran 20 40\n"
        "hw: provides disk ran 5 20\n"
        "ntp: requires link ran 50 51");
    EXPECT_EQ(StepsWith(boot, 2), "hw@5-20 alone@5-15 net@20-40 ntp@40-41");
    EXPECT_EQ(MakeForecast(boot, {MeasuredModel(boot).durations, 2, 5}).makespan, 41);
}

TEST(Forecast, FinishesWhatEndsAtOneInstantInTheOrderOfStarts) {
    // The thread of the first to end picks before the second ends.
    const Boot boot = BootOf(
        "a: provides x ran 0 10\n"
        "b: provides y ran 0 10\n"
        "behindB: requires y provides z ran 0 5\n"
        "deepB: requires z ran 0 5\n"
        "behindA: requires x ran 0 5");
    EXPECT_EQ(StepsWith(boot, 2), "b@0-10 a@0-10 behindB@10-15 behindA@10-15 deepB@15-20");
    EXPECT_EQ(StepsWith(BootOf("a: provides x ran 0 10\n"
                               "b: provides y ran 0 10\n"
                               "third: ran 0 3\n"
                               "behindA: requires x ran 0 5\n"
                               "behindB: requires y ran 0 5"),
                        2),
              "a@0-10 b@0-10 third@10-13 behindA@10-15 behindB@13-18");
}

TEST(Forecast, HoldsNoThreadForAPluginThatTakesNoTime) {
    const Boot boot = BootOf(
        "a: provides x began 0\n"
        "b: requires x ran 0 5\n"
        "c: ran 0 5");
    EXPECT_EQ(StepsWith(boot, 1), "a@0-0 c@0-5 b@5-10");
    EXPECT_EQ(StepsWith(boot, 2), "a@0-0 c@0-5 b@0-5");
}

TEST(Forecast, LetsPluginsThatAreKeptOutCountAsStarted) {
    EXPECT_EQ(Order(BootOf("user: requires x\n"
                           "gone: requires nowhere provides x out")),
              "user");
}

TEST(Forecast, HasNoPluginsThatALoopHoldsUp) {
    const Boot boot = BootOf(
        "loop: requires l provides l ran 0 5\n"
        "behind: requires l ran 0 5\n"
        "free: ran 0 7");
    EXPECT_EQ(StepsWith(boot, 1), "free@0-7");
    EXPECT_EQ(MakeForecast(BootOf("l: requires l provides l"), {{0}, 1, 4}).makespan, 0);
}

TEST(Forecast, OfRandomGraphsPicksAsTheProgramDoes) {
    std::mt19937 random(15);
    for (int round = 0; round < 1000; ++round) {
        const std::string lines = test::DrawBoot({.plugins = 12, .barriers = 8}, random);
        ASSERT_EQ(Order(BootOf(lines)), lofter::test::TestGraph(lines).Starts()) << lines;
    }
}

// A simulation told a second time: barriers and plugins as nodes, everything looked up anew.
class PlainSimulation {
  public:
    PlainSimulation(const Boot& simulatedBoot, const ForecastModel& simulatedModel)
        : boot(simulatedBoot),
          model(simulatedModel),
          now(model.begin),
          nodes(boot.plugins.size() + boot.barriers.size()) {
        for (PluginIndex plugin = 0; plugin < boot.plugins.size(); ++plugin) {
            for (const BarrierIndex barrier : boot.plugins[plugin].requiredBarriers) {
                Link(boot.plugins.size() + barrier, plugin);
            }
            for (const BarrierIndex barrier : boot.plugins[plugin].providedBarriers) {
                Link(plugin, boot.plugins.size() + barrier);
            }
            nodes[plugin].isDone = !boot.plugins[plugin].Runs();
        }
    }

    Forecast Run() {
        for (PluginIndex plugin = 0; plugin < boot.plugins.size(); ++plugin) {
            Schedule(plugin);
        }
        for (;;) {
            while (running.size() < model.threads && !queue.empty()) {
                Begin(TakeBest());
            }
            if (running.empty()) {
                return forecast;
            }
            const auto first =
                std::min_element(running.begin(), running.end(),
                                 [](const auto& left, const auto& right) { return left.end < right.end; });
            const ForecastStep step = *first;
            running.erase(first);
            now = step.end;
            Finish(step.plugin);
        }
    }

  private:
    struct PlainNode {
        std::vector<std::size_t> before;
        std::vector<std::size_t> after;
        bool isAsked = false;
        bool isQueued = false;
        bool isDone = false;
    };

    void Link(std::size_t before, std::size_t after) {
        nodes[before].after.push_back(after);
        nodes[after].before.push_back(before);
    }

    void Schedule(std::size_t node) {
        if (nodes[node].isQueued || nodes[node].isDone) {
            return;
        }
        nodes[node].isAsked = true;
        bool isReady = true;
        for (const std::size_t before : nodes[node].before) {
            isReady = isReady && nodes[before].isDone;
            if (!nodes[before].isAsked) {
                Schedule(before);
            }
        }
        if (isReady) {
            nodes[node].isQueued = true;
            queue.push_back(node);
        }
    }

    int Depth(std::size_t node) const {
        int depth = 0;
        for (const std::size_t after : nodes[node].after) {
            depth = std::max(depth, 1 + Depth(after));
        }
        return depth;
    }

    std::size_t TakeBest() {
        const auto best = std::max_element(queue.begin(), queue.end(), [this](std::size_t left, std::size_t right) {
            return Depth(left) < Depth(right);
        });
        const std::size_t node = *best;
        queue.erase(best);
        return node;
    }

    void Begin(std::size_t node) {
        if (node >= boot.plugins.size()) {
            Finish(node);
            return;
        }
        forecast.steps.push_back({node, now, now + model.durations[node]});
        running.push_back(forecast.steps.back());
        forecast.makespan = std::max(forecast.makespan, forecast.steps.back().end);
    }

    void Finish(std::size_t node) {
        nodes[node].isDone = true;
        for (const std::size_t after : nodes[node].after) {
            if (nodes[after].isAsked) {
                Schedule(after);
            }
        }
    }

    const Boot& boot;
    const ForecastModel& model;
    Microseconds now;
    std::vector<PlainNode> nodes;
    std::vector<std::size_t> queue;
    std::vector<ForecastStep> running;
    Forecast forecast;
};

TEST(Forecast, OfRandomBootsIsThatOfAPlainSimulation) {
    std::mt19937 random(16);
    for (int round = 0; round < 2000; ++round) {
        const std::string lines =
            test::DrawBoot({.plugins = 12, .barriers = 8, .hasTimes = true, .hasKeptOut = true}, random);
        const Boot boot = BootOf(lines);
        ForecastModel model = MeasuredModel(boot);
        model.threads = 1 + random() % 4;
        const Forecast forecast = MakeForecast(boot, model);
        const Forecast plain = PlainSimulation(boot, model).Run();
        ASSERT_EQ(Steps(boot, forecast), Steps(boot, plain)) << model.threads << " threads\n" << lines;
        ASSERT_EQ(forecast.makespan, plain.makespan) << lines;
    }
}

TEST(MeasuredModel, OfASerialLogHasOneThread) {
    const Boot boot = BootOf("a: ran 3 10\nb: ran 4 12\nskipped: began 2\ngone: ran 0 1 out");
    const ForecastModel model = MeasuredModel(boot);
    EXPECT_EQ(model.threads, 1U);
    EXPECT_EQ(model.begin, 2);
    EXPECT_EQ(model.durations, (std::vector<Microseconds>{7, 8, 0, 0}));
    EXPECT_EQ(MeasuredMakespan(boot), 12);
}

TEST(MeasuredModel, OfAParallelLogHasAsManyThreadsAsPluginsRanAtOnce) {
    const auto threadsOf = [](const std::string& text) {
        Boot boot = BootOf(text);
        boot.run->isParallel = true;
        return MeasuredModel(boot).threads;
    };
    EXPECT_EQ(threadsOf("a: ran 0 10\nb: ran 5 12\nc: ran 9 11\nd: ran 11 20"), 3U);
    EXPECT_EQ(threadsOf("a: ran 0 10\nb: ran 10 12\nc: ran 12 13"), 1U);
    EXPECT_EQ(threadsOf("a: ran 0 10\nb: ran 5 5\nc: ran 5 5"), 2U);
    EXPECT_EQ(threadsOf("skipped: began 5"), 1U);
}

TEST(MeasuredMakespan, IsNotThereWhenNothingRan) {
    EXPECT_EQ(MeasuredMakespan(BootOf("a: provides x")), std::nullopt);
}

}  // namespace
}  // namespace lofter::analyze
