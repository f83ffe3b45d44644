#include "analysis/Ways.h"

#include <algorithm>
#include <random>

#include <gtest/gtest.h>

#include "support/RandomBoot.h"
#include "support/TestBoot.h"

namespace lofter::analyze {
namespace {

using test::BootOf;
using test::IndexOf;

std::vector<std::vector<std::string>> NamesOf(const Boot& boot, const Ways& ways) {
    std::vector<std::vector<std::string>> all;
    for (const Way& way : ways.shortest) {
        std::vector<std::string>& names = all.emplace_back();
        for (const WayStep& step : way) {
            names.push_back(boot.plugins[step.plugin].Name());
            names.push_back(boot.barriers[step.barrier].name);
        }
    }
    return all;
}

std::string WaysIn(const std::string& lines, const std::string& from, const std::string& to, std::size_t most = 100) {
    const Boot boot = BootOf(lines);
    const Ways ways = FindWays(boot, IndexOf(boot, from), IndexOf(boot, to), most);
    std::string text;
    for (const std::vector<std::string>& names : NamesOf(boot, ways)) {
        for (const std::string& name : names) {
            text += name + ' ';
        }
        text += to + '\n';
    }
    return text + (ways.hasMore ? "more\n" : "");
}

TEST(Ways, AreTheShortestOnesByNames) {
    const char* const lines =
        "hw: provides disk bus far\n"
        "raid: requires bus provides volume\n"
        "fs: requires disk provides volume\n"
        "slow: requires far provides farther\n"
        "slower: requires farther provides volume\n"
        "data: requires volume";
    EXPECT_EQ(WaysIn(lines, "hw", "data"),
              "hw bus raid volume data\n"
              "hw disk fs volume data\n");
    EXPECT_EQ(WaysIn(lines, "fs", "data"), "fs volume data\n");
    EXPECT_EQ(WaysIn(lines, "hw", "data", 1), "hw bus raid volume data\nmore\n");
    EXPECT_EQ(WaysIn(lines, "hw", "data", 2), "hw bus raid volume data\nhw disk fs volume data\n");
}

TEST(Ways, AreNotBetweenPluginsThatAreNotOrdered) {
    EXPECT_EQ(WaysIn("a: provides x\nb: requires x", "b", "a"), "");
    EXPECT_EQ(WaysIn("a: provides x\nb: requires x", "a", "a"), "");
}

TEST(Ways, DoNotLeadOverPluginsThatAreKeptOut) {
    EXPECT_EQ(WaysIn("a: provides x\nb: requires x provides y out\nc: requires y", "a", "c"), "");
    EXPECT_EQ(WaysIn("a: provides x out\nc: requires x", "a", "c"), "");
    EXPECT_EQ(WaysIn("a: provides x\nc: requires x out", "a", "c"), "");
}

TEST(Ways, FromAPluginToItselfAreItsLoops) {
    EXPECT_EQ(WaysIn("a: requires y provides x\nb: requires x provides y", "a", "a"), "a x b y a\n");
    EXPECT_EQ(WaysIn("a: requires x provides x", "a", "a"), "a x a\n");
}

TEST(Ways, MayBeMoreThanAnyoneReads) {
    std::string lines = "p0: provides b0 c0\n";
    for (int layer = 1; layer < 60; ++layer) {
        const std::string before = std::to_string(layer - 1);
        const std::string own = std::to_string(layer);
        lines += "p" + own + ": requires b" + before + " c" + before + " provides b" + own + " c" + own + '\n';
    }
    const std::string ways = WaysIn(lines, "p0", "p59");
    EXPECT_EQ(std::count(ways.begin(), ways.end(), '\n'), 101);
    EXPECT_EQ(ways.substr(ways.size() - 5), "more\n");
}

// Walks over everything that leads on, and keeps the shortest.
class AllWays {
  public:
    AllWays(const Boot& searchedBoot, PluginIndex lastPlugin) : boot(searchedBoot), last(lastPlugin) {}

    std::vector<std::vector<std::string>> From(PluginIndex first) {
        if (boot.plugins[first].Runs() && boot.plugins[last].Runs()) {
            Extend(first);
        }
        const auto isShorter = [](const auto& left, const auto& right) {
            return left.size() < right.size();
        };
        if (!found.empty()) {
            const std::size_t least = std::min_element(found.begin(), found.end(), isShorter)->size();
            std::erase_if(found, [least](const auto& one) { return one.size() > least; });
        }
        std::sort(found.begin(), found.end());
        return found;
    }

  private:
    void Extend(PluginIndex plugin) {
        way.push_back(boot.plugins[plugin].Name());
        for (BarrierIndex barrier = 0; barrier < boot.barriers.size(); ++barrier) {
            const BootBarrier& between = boot.barriers[barrier];
            if (std::find(between.providers.begin(), between.providers.end(), plugin) == between.providers.end()) {
                continue;
            }
            way.push_back(between.name);
            for (const PluginIndex requirer : between.requirers) {
                if (requirer == last) {
                    found.push_back(way);
                } else if (boot.plugins[requirer].Runs() &&
                           std::find(way.begin(), way.end(), boot.plugins[requirer].Name()) == way.end()) {
                    Extend(requirer);
                }
            }
            way.pop_back();
        }
        way.pop_back();
    }

    const Boot& boot;
    const PluginIndex last;
    std::vector<std::string> way;
    std::vector<std::vector<std::string>> found;
};

TEST(Ways, OfRandomGraphsAreThoseThatLookingAtEveryWayFinds) {
    std::mt19937 random(17);
    int withWays = 0;
    for (int round = 0; round < 2000; ++round) {
        const std::string lines =
            test::DrawBoot({.plugins = 7, .barriers = 6, .hasLoops = true, .hasKeptOut = true}, random);
        const Boot boot = BootOf(lines);
        const PluginIndex from = random() % boot.plugins.size();
        const PluginIndex to = random() % boot.plugins.size();
        const auto found = NamesOf(boot, FindWays(boot, from, to, 1000));
        withWays += found.empty() ? 0 : 1;
        ASSERT_EQ(found, AllWays(boot, to).From(from)) << from << " to " << to << '\n' << lines;
    }
    EXPECT_GT(withWays, 200);
}

}  // namespace
}  // namespace lofter::analyze
