#include "analysis/Standstill.h"

#include <set>

#include <gtest/gtest.h>

#include "support/TestBoot.h"

namespace lofter::analyze {
namespace {

using test::BootOf;

struct State {
    Boot boot;
    std::vector<Progress> progress;
};

// The names of those that run and of those that are over, separated by blanks.
State StateOf(const std::string& boot, const std::string& running, const std::string& over) {
    State state{BootOf(boot), {}};
    state.progress.resize(state.boot.plugins.size(), Progress::NotBegun);
    const auto set = [&](const std::string& names, Progress progress) {
        std::istringstream words(names);
        for (std::string name; words >> name;) {
            state.progress[test::IndexOf(state.boot, name)] = progress;
        }
    };
    set(running, Progress::Running);
    set(over, Progress::Over);
    return state;
}

// "running hw+2; cycle a -[x]-> a+0; waiting net+1 for bus held by hw; ..."
std::string Shown(const State& state) {
    const Boot& boot = state.boot;
    const Standstill standstill = FindStandstill(boot, state.progress);
    std::string text;
    for (const Standstill::Holder& holder : standstill.running) {
        text += "running " + boot.plugins[holder.plugin].Name() + '+' + std::to_string(holder.holdsUp) + "; ";
    }
    for (const Standstill::Loop& loop : standstill.loops) {
        text += "cycle " + ShownCycle(boot, loop.cycle) + '+' + std::to_string(loop.holdsUp) + "; ";
    }
    for (const Standstill::Waiter& waiter : standstill.waiting) {
        text += "waiting " + boot.plugins[waiter.plugin].Name() + '+' + std::to_string(waiter.holdsUp) + " for";
        for (const BarrierIndex barrier : waiter.barriers) {
            text += ' ' + boot.barriers[barrier].name;
        }
        text += " held by " + test::Names(boot, waiter.heldBy) + "; ";
    }
    return text;
}

TEST(Standstill, WhatWaitsBehindARunningPluginIsHeldByIt) {
    EXPECT_EQ(Shown(StateOf("hw: provides bus\n"
                            "net: requires bus provides link\n"
                            "web: requires link bus\n"
                            "clock:\n",
                            "hw", "clock")),
              "running hw+2; waiting net+1 for bus held by hw; waiting web+0 for link bus held by hw; ");
}

TEST(Standstill, ThoseThatHoldUpMoreComeFirst) {
    EXPECT_EQ(Shown(StateOf("small: provides one\n"
                            "large: provides two\n"
                            "a: requires one\n"
                            "b: requires one two\n"
                            "c: requires two\n"
                            "d: requires two provides three\n"
                            "e: requires three\n",
                            "small large", "")),
              "running large+4; running small+2; "
              "waiting d+1 for two held by large; waiting a+0 for one held by small; "
              "waiting b+0 for one two held by large small; waiting c+0 for two held by large; "
              "waiting e+0 for three held by large; ");
}

TEST(Standstill, WhatWaitsForAFreeThreadIsNotListed) {
    EXPECT_EQ(Shown(StateOf("busy:\n"
                            "ready: provides done\n"
                            "behind: requires done\n",
                            "busy", "")),
              "running busy+0; ");
}

TEST(Standstill, ABarrierIsOpenWhenAllThatProvideItAreOver) {
    EXPECT_EQ(Shown(StateOf("a: provides x\n"
                            "b: provides x\n"
                            "out: provides x y out\n"
                            "c: requires x y z\n",
                            "b", "a")),
              "running b+1; waiting c+0 for x held by b; ");
}

TEST(Standstill, PluginsThatWaitForEachOtherHoldThemselvesAndThoseBehind) {
    EXPECT_EQ(Shown(StateOf("a: requires y provides x\n"
                            "b: requires x provides y z\n"
                            "c: requires z\n"
                            "self: requires own provides own\n"
                            "done:\n",
                            "", "done")),
              "cycle a -[x]-> b -[y]-> a+1; cycle self -[own]-> self+0; "
              "waiting a+2 for y held by a b; waiting b+2 for x held by a b; "
              "waiting c+0 for z held by a b; waiting self+0 for own held by self; ");
}

TEST(Standstill, BehindAPluginAndACycleBothHold) {
    EXPECT_EQ(Shown(StateOf("a: requires y run provides x\n"
                            "b: requires x provides y\n"
                            "c: requires y\n"
                            "r: provides run\n",
                            "r", "")),
              "running r+3; cycle a -[x]-> b -[y]-> a+1; "
              "waiting a+2 for y run held by r a b; waiting b+2 for x held by r a b; "
              "waiting c+0 for y held by r a b; ");
}

TEST(Standstill, WhatHasBegunIsOnNoCycle) {
    EXPECT_EQ(Shown(StateOf("a: requires y provides x\n"
                            "b: requires x provides y\n",
                            "a", "")),
              "running a+1; waiting b+0 for x held by a; ");
}

TEST(Standstill, WhatKeptOutPluginsProvideIsOpen) {
    EXPECT_EQ(Shown(StateOf("out1: out provides x\n"
                            "a: requires x\n",
                            "", "")),
              "");
}

TEST(Standstill, WhatARunningPluginWaitedForIsOver) {
    const State state = StateOf(
        "a: provides x\n"
        "b: requires x provides y\n"
        "c: requires y\n"
        "d: requires y\n",
        "a c", "");
    const std::vector<Progress> progress = WithWhatMustBeOver(state.boot, state.progress);
    EXPECT_EQ(progress, (std::vector<Progress>{Progress::Over, Progress::Over, Progress::Running, Progress::NotBegun}));
}

// Counted plainly, plugin by plugin, on graphs that are wider than what is looked for at a time.
TEST(Standstill, LargeBootsAreCountedLikeSmallOnes) {
    constexpr std::size_t kPlugins = 2'500;
    std::string text;
    for (std::size_t plugin = 0; plugin < kPlugins; ++plugin) {
        text += "p" + std::to_string(plugin) + ": provides b" + std::to_string(plugin);
        if (plugin > 0) {
            text += " requires b" + std::to_string(plugin / 2) + " b" + std::to_string(plugin * 2 / 3);
        }
        text += '\n';
    }
    State state{BootOf(text), std::vector<Progress>(kPlugins, Progress::NotBegun)};
    state.progress[1] = Progress::Running;
    const Standstill standstill = FindStandstill(state.boot, state.progress);
    ASSERT_EQ(standstill.running.size(), 1U);

    std::vector<std::set<std::size_t>> behind(kPlugins);
    for (std::size_t plugin = kPlugins; plugin-- > 2;) {
        for (const std::size_t leader : {plugin / 2, plugin * 2 / 3}) {
            behind[leader].insert(plugin);
            behind[leader].insert(behind[plugin].begin(), behind[plugin].end());
        }
    }
    EXPECT_EQ(standstill.running.front().holdsUp, behind[1].size());
    for (const Standstill::Waiter& waiter : standstill.waiting) {
        EXPECT_EQ(waiter.holdsUp, behind[waiter.plugin].size()) << waiter.plugin;
    }
    EXPECT_EQ(standstill.waiting.size(), behind[1].size());
}

}  // namespace
}  // namespace lofter::analyze
