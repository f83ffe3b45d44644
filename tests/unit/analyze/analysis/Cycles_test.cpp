#include "analysis/Cycles.h"

#include <algorithm>
#include <random>
#include <tuple>

#include <gtest/gtest.h>

#include "support/RandomBoot.h"
#include "support/TestBoot.h"

namespace lofter::analyze {
namespace {

using test::BootOf;

std::string CyclesOf(const Boot& boot) {
    std::string text;
    for (const Cycle& cycle : FindCycles(boot)) {
        text += ShownCycle(boot, cycle) + '\n';
    }
    return text;
}

TEST(Cycles, AreNotInAGraphThatBoots) {
    EXPECT_EQ(CyclesOf(BootOf("hw: provides disk\n"
                              "net: requires disk provides link\n"
                              "ntp: requires link disk nowhere")),
              "");
}

TEST(Cycles, AreToldWholeFromTheSmallestName) {
    EXPECT_EQ(CyclesOf(BootOf("c: requires net provides disk\n"
                              "b: requires disk provides link\n"
                              "a: requires link provides net\n"
                              "behind: requires net provides more\n"
                              "before: provides disk")),
              "a -[net]-> c -[disk]-> b -[link]-> a\n");
}

TEST(Cycles, HoldAPluginThatRequiresWhatItProvidesWhoeverElseProvidesItToo) {
    EXPECT_EQ(CyclesOf(BootOf("other: provides disk\n"
                              "self: requires disk provides disk\n"
                              "user: requires disk")),
              "self -[disk]-> self\n");
}

TEST(Cycles, AreToldOncePerStronglyConnectedPartByAShortestLoop) {
    EXPECT_EQ(CyclesOf(BootOf("a: requires z provides ab\n"
                              "b: requires ab cb provides bc\n"
                              "c: requires bc provides cb cz\n"
                              "d: requires cz provides z\n"
                              "x: requires yx provides xy\n"
                              "y: requires xy provides yx\n"
                              "between: requires cz provides middle\n"
                              "v: requires vv middle provides vv")),
              "b -[bc]-> c -[cb]-> b\n"
              "v -[vv]-> v\n"
              "x -[xy]-> y -[yx]-> x\n");
}

TEST(Cycles, OfSeveralShortestLoopsAreTheLeastByNames) {
    EXPECT_EQ(CyclesOf(BootOf("a: requires back provides there\n"
                              "d: requires there provides back\n"
                              "c: requires there provides back way\n"
                              "b: requires way provides far\n"
                              "a2: requires far provides there")),
              "a -[there]-> c -[back]-> a\n");
    EXPECT_EQ(CyclesOf(BootOf("b: requires back provides z y x\n"
                              "c: requires y z provides back")),
              "b -[y]-> c -[back]-> b\n");
}

TEST(Cycles, TellPluginsOfOneNameApart) {
    EXPECT_EQ(CyclesOf(BootOf("a: requires back1 other provides out1\n"
                              "z: requires out1 provides back1 bridge\n"
                              "a: requires back2 provides out2\n"
                              "b: requires out2 bridge provides back2 other")),
              "a -[out2]-> b -[back2]-> a\n");
}

TEST(Cycles, AreNotOfPluginsThatAreKeptOut) {
    EXPECT_EQ(CyclesOf(BootOf("a: requires net provides disk out\n"
                              "b: requires disk provides net\n"
                              "self: requires own provides own out")),
              "");
}

TEST(Cycles, MayBeAsLongAsAHost) {
    constexpr int kPlugins = 20'000;
    std::string lines;
    for (int number = 0; number < kPlugins; ++number) {
        lines += "p" + std::to_string(100'000 + number) + ": requires b" + std::to_string(number) + " provides b" +
                 std::to_string((number + 1) % kPlugins) + '\n';
    }
    const std::vector<Cycle> cycles = FindCycles(BootOf(lines));
    ASSERT_EQ(cycles.size(), 1U);
    EXPECT_EQ(cycles.front().size(), static_cast<std::size_t>(kPlugins));
}

// All loops of a small boot, one by one.
class AllLoops {
  public:
    explicit AllLoops(const Boot& analysedBoot) : boot(analysedBoot), reaches(boot.plugins.size()) {
        const std::size_t count = boot.plugins.size();
        for (PluginIndex from = 0; from < count; ++from) {
            for (PluginIndex to = 0; to < count; ++to) {
                reaches[from].push_back(!BarrierBetween(from, to).empty());
            }
        }
        for (PluginIndex between = 0; between < count; ++between) {
            for (PluginIndex from = 0; from < count; ++from) {
                for (PluginIndex to = 0; to < count; ++to) {
                    reaches[from][to] = reaches[from][to] || (reaches[from][between] && reaches[between][to]);
                }
            }
        }
        for (PluginIndex first = 0; first < count; ++first) {
            path = {first};
            Extend();
        }
    }

    // The best one of each strongly connected part, as text.
    std::string Best() const {
        std::vector<Loop> best;
        for (const Loop& loop : loops) {
            const auto isOfSamePart = [&](const Loop& other) {
                return reaches[loop.first][other.first] && reaches[other.first][loop.first];
            };
            const auto known = std::find_if(best.begin(), best.end(), isOfSamePart);
            if (known == best.end()) {
                best.push_back(loop);
            } else if (loop < *known) {
                *known = loop;
            }
        }
        std::sort(best.begin(), best.end(),
                  [](const Loop& left, const Loop& right) { return left.names < right.names; });
        std::string text;
        for (const Loop& loop : best) {
            for (std::size_t step = 0; step < loop.names.size(); ++step) {
                text += loop.names[step] + " -[" + loop.barriers[step] + "]-> ";
            }
            text += loop.names.front() + '\n';
        }
        return text;
    }

  private:
    struct Loop {
        std::vector<std::string> names;
        std::vector<std::string> barriers;
        PluginIndex first;

        bool operator<(const Loop& other) const {
            return std::tuple(names.size(), names, barriers) <
                   std::tuple(other.names.size(), other.names, other.barriers);
        }
    };

    std::string BarrierBetween(PluginIndex from, PluginIndex to) const {
        std::string least;
        for (const BarrierLink& provided : boot.plugins[from].description.links) {
            for (const BarrierLink& required : boot.plugins[to].description.links) {
                if (provided.direction == BarrierLink::Direction::Provides &&
                    required.direction == BarrierLink::Direction::Requires && provided.barrier == required.barrier &&
                    boot.plugins[from].Runs() && boot.plugins[to].Runs() &&
                    (least.empty() || provided.barrier < least)) {
                    least = provided.barrier;
                }
            }
        }
        return least;
    }

    void Extend() {
        for (PluginIndex next = 0; next < boot.plugins.size(); ++next) {
            if (BarrierBetween(path.back(), next).empty()) {
                continue;
            }
            if (next == path.front()) {
                Keep();
            } else if (std::find(path.begin(), path.end(), next) == path.end() &&
                       boot.plugins[next].Name() > boot.plugins[path.front()].Name()) {
                path.push_back(next);
                Extend();
                path.pop_back();
            }
        }
    }

    void Keep() {
        Loop loop{{}, {}, path.front()};
        for (std::size_t step = 0; step < path.size(); ++step) {
            loop.names.push_back(boot.plugins[path[step]].Name());
            loop.barriers.push_back(BarrierBetween(path[step], path[(step + 1) % path.size()]));
        }
        loops.push_back(loop);
    }

    const Boot& boot;
    std::vector<std::vector<bool>> reaches;
    std::vector<PluginIndex> path;
    std::vector<Loop> loops;
};

TEST(Cycles, OfRandomGraphsAreThoseThatLookingAtEveryLoopFinds) {
    std::mt19937 random(13);
    int withCycles = 0;
    for (int round = 0; round < 3000; ++round) {
        const std::string lines =
            test::DrawBoot({.plugins = 7, .barriers = 6, .hasLoops = true, .hasKeptOut = true}, random);
        const Boot boot = BootOf(lines);
        const std::string found = CyclesOf(boot);
        withCycles += found.empty() ? 0 : 1;
        ASSERT_EQ(found, AllLoops(boot).Best()) << lines;
    }
    EXPECT_GT(withCycles, 500);
}

std::string KnotsOf(const Boot& boot) {
    std::string text;
    for (const Knot& knot : FindKnots(boot)) {
        text += test::Names(boot, knot.plugins) + ':';
        for (const BarrierIndex barrier : knot.barriers) {
            text += ' ' + boot.barriers[barrier].name;
        }
        text += '\n';
    }
    return text;
}

TEST(Knots, HoldWhateverIsOnALoop) {
    EXPECT_EQ(KnotsOf(BootOf("a: requires z provides ab\n"
                             "b: requires ab cb provides bc\n"
                             "c: requires bc provides cb cz\n"
                             "d: requires cz provides z\n"
                             "behind: requires cz provides more")),
              "a b c d: ab bc cb cz z\n");
}

TEST(Knots, AreApartWhenNoWayLeadsBack) {
    const Boot boot = BootOf(
        "a: requires ba provides ab\n"
        "b: requires ab provides ba bs\n"
        "s: requires bs s provides s");
    EXPECT_EQ(FindKnots(boot).size(), 2U);
    EXPECT_NE(KnotsOf(boot).find("a b: ab ba\n"), std::string::npos);
    EXPECT_NE(KnotsOf(boot).find("s: s\n"), std::string::npos);
}

TEST(Knots, AreNotWhereAPluginIsKeptOut) {
    EXPECT_EQ(KnotsOf(BootOf("a: requires y provides x\nb: requires x provides y out")), "");
}

}  // namespace
}  // namespace lofter::analyze
