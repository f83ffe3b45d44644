#include "analysis/Chains.h"

#include <algorithm>
#include <limits>
#include <numeric>
#include <random>

#include <gtest/gtest.h>

#include "support/RandomBoot.h"
#include "support/TestBoot.h"

namespace lofter::analyze {
namespace {

using test::BootOf;
using test::IndexOf;
using test::Names;

// "name:slack" for each plugin, "-" where there is none.
std::string Slacks(const Boot& boot) {
    const Chains chains = FindChains(boot, MeasuredDurations(boot));
    std::string text;
    for (PluginIndex plugin = 0; plugin < boot.plugins.size(); ++plugin) {
        text += (text.empty() ? "" : " ") + boot.plugins[plugin].Name() + ':' +
                (chains.slack[plugin] ? std::to_string(*chains.slack[plugin]) : "-");
    }
    return text;
}

TEST(Floor, IsTheLongestChainOfDurations) {
    const Boot boot = BootOf(
        "late: requires b ran 300 340\n"
        "middle: requires a provides b ran 112 130\n"
        "beside: provides b ran 0 15\n"
        "first: provides a ran 0 12");
    const Chains chains = FindChains(boot, MeasuredDurations(boot));
    EXPECT_EQ(chains.floor, 12 + 18 + 40);
    EXPECT_EQ(Names(boot, chains.longest), "first middle late");
    EXPECT_EQ(Slacks(boot), "late:0 middle:0 beside:15 first:0");
}

TEST(Floor, DoesNotCountPluginsThatAreKeptOutSkippedOrOnALoop) {
    const Boot boot = BootOf(
        "gone: provides a ran 0 900 out\n"
        "asked: requires a provides b began 5\n"
        "user: requires b ran 5 15\n"
        "loop: requires l provides l ran 0 100\n"
        "behind: requires l ran 0 100");
    EXPECT_EQ(FindChains(boot, MeasuredDurations(boot)).floor, 10);
    EXPECT_EQ(Slacks(boot), "gone:- asked:0 user:0 loop:- behind:-");
}

TEST(Floor, OfABootWithoutPluginsIsNothing) {
    const Chains chains = FindChains(BootOf(""), {});
    EXPECT_EQ(chains.floor, 0);
    EXPECT_TRUE(chains.longest.empty());
}

TEST(Floor, OfDurationsThatNoClockMeasuresIsANumber) {
    const std::string huge = std::to_string(std::numeric_limits<Microseconds>::max());
    const Boot boot = BootOf("a: provides x ran 0 " + huge + "\nb: requires x ran 0 " + huge);
    EXPECT_GT(FindChains(boot, MeasuredDurations(boot)).floor, std::numeric_limits<Microseconds>::max() / 8);
}

TEST(StartOrder, PutsPluginsBehindWhatTheyWaitFor) {
    const Boot boot = BootOf(
        "c: requires y y\n"
        "b: requires x provides y y\n"
        "a: provides x\n"
        "out: requires y provides x out");
    EXPECT_EQ(Names(boot, StartOrder(boot)), "a b c");
}

// Every chain there is, one by one.
class AllChains {
  public:
    explicit AllChains(const Boot& analysedBoot)
        : boot(analysedBoot), durations(MeasuredDurations(boot)), longestThrough(boot.plugins.size(), -1) {
        for (PluginIndex first = 0; first < boot.plugins.size(); ++first) {
            if (boot.plugins[first].Runs()) {
                path = {first};
                Extend();
            }
        }
    }

    Microseconds Longest() const {
        return std::max<Microseconds>(*std::max_element(longestThrough.begin(), longestThrough.end()), 0);
    }
    const std::vector<Microseconds>& LongestThrough() const { return longestThrough; }

  private:
    bool IsBefore(PluginIndex from, PluginIndex to) const {
        const std::vector<BarrierIndex>& required = boot.plugins[to].requiredBarriers;
        const std::vector<BarrierIndex>& provided = boot.plugins[from].providedBarriers;
        return boot.plugins[to].Runs() && std::any_of(provided.begin(), provided.end(), [&](BarrierIndex barrier) {
                   return std::find(required.begin(), required.end(), barrier) != required.end();
               });
    }

    void Extend() {
        Microseconds length = 0;
        for (const PluginIndex plugin : path) {
            length += durations[plugin];
        }
        for (const PluginIndex plugin : path) {
            longestThrough[plugin] = std::max(longestThrough[plugin], length);
        }
        for (PluginIndex next = 0; next < boot.plugins.size(); ++next) {
            if (IsBefore(path.back(), next)) {
                path.push_back(next);
                Extend();
                path.pop_back();
            }
        }
    }

    const Boot& boot;
    std::vector<Microseconds> durations;
    std::vector<Microseconds> longestThrough;
    std::vector<PluginIndex> path;
};

TEST(FloorAndSlack, OfRandomGraphsAreThoseThatLookingAtEveryChainFinds) {
    std::mt19937 random(14);
    for (int round = 0; round < 2000; ++round) {
        const std::string lines =
            test::DrawBoot({.plugins = 8, .barriers = 6, .hasTimes = true, .hasKeptOut = true}, random);
        const Boot boot = BootOf(lines);
        const AllChains all(boot);
        const Chains chains = FindChains(boot, MeasuredDurations(boot));
        ASSERT_EQ(chains.floor, all.Longest()) << lines;
        for (PluginIndex plugin = 0; plugin < boot.plugins.size(); ++plugin) {
            ASSERT_EQ(chains.slack[plugin].has_value(), boot.plugins[plugin].Runs()) << lines;
            if (chains.slack[plugin]) {
                ASSERT_EQ(*chains.slack[plugin], all.Longest() - all.LongestThrough()[plugin]) << lines;
            }
        }
        Microseconds length = 0;
        for (const PluginIndex plugin : chains.longest) {
            ASSERT_EQ(chains.slack[plugin], 0) << lines;
            length += MeasuredDurations(boot)[plugin];
        }
        ASSERT_EQ(length, chains.floor) << lines;
    }
}

}  // namespace
}  // namespace lofter::analyze
