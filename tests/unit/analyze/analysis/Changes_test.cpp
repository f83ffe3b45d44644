#include "analysis/Changes.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "analysis/Chains.h"
#include "support/TestBoot.h"

namespace lofter::analyze {
namespace {

using test::BootOf;
using test::IndexOf;

PluginWait WaitIn(const Boot& boot, const std::string& before, const std::string& after) {
    return {IndexOf(boot, before), IndexOf(boot, after)};
}

// Who waits for whom, directly: "a<b" when b waits for a.
std::string Waits(const Boot& boot) {
    std::vector<std::string> waits;
    for (const BootBarrier& barrier : boot.barriers) {
        for (const PluginIndex provider : barrier.providers) {
            for (const PluginIndex requirer : barrier.requirers) {
                if (boot.plugins[provider].Runs() && boot.plugins[requirer].Runs()) {
                    waits.push_back(boot.plugins[provider].Name() + '<' + boot.plugins[requirer].Name());
                }
            }
        }
    }
    std::sort(waits.begin(), waits.end());
    waits.erase(std::unique(waits.begin(), waits.end()), waits.end());
    std::string text;
    for (const std::string& wait : waits) {
        text += (text.empty() ? "" : " ") + wait;
    }
    return text;
}

TEST(ChangedBoot, IsTheBootAsLongAsNothingChanges) {
    const Boot boot = BootOf("a: provides x ran 1 2\nb: requires x x");
    const Boot made = ChangedBoot(boot).Make();
    EXPECT_EQ(Waits(made), "a<b");
    EXPECT_EQ(made.plugins[0].timing->end, 2);
    EXPECT_EQ(made.plugins[1].requiredBarriers.size(), 2U);
    EXPECT_TRUE(made.run.has_value());
}

TEST(ChangedBoot, DropsOneWaitByWhateverBarrierAndKeepsTheOthers) {
    const Boot boot = BootOf(
        "a: provides x y\n"
        "other: provides x\n"
        "b: requires x y\n"
        "c: requires x y");
    ChangedBoot changed(boot);
    EXPECT_TRUE(changed.Drop(WaitIn(boot, "a", "b")));
    EXPECT_EQ(Waits(changed.Make()), "a<c other<b other<c");
    EXPECT_TRUE(changed.Drop(WaitIn(boot, "other", "b")));
    EXPECT_EQ(Waits(changed.Make()), "a<c other<c");
    EXPECT_FALSE(changed.Drop(WaitIn(boot, "other", "b")));
    EXPECT_FALSE(changed.Drop(WaitIn(boot, "b", "c")));
}

TEST(ChangedBoot, AddsWaits) {
    const Boot boot = BootOf("a: provides x\nb: requires x\n-1:\n--1:");
    ChangedBoot changed(boot);
    changed.Add(WaitIn(boot, "b", "-1"));
    changed.Add(WaitIn(boot, "a", "--1"));
    EXPECT_EQ(Waits(changed.Make()), "a<--1 a<b b<-1");
}

TEST(ChangedBoot, LetsARemovedPluginHoldUpNobody) {
    const Boot boot = BootOf("a: provides x\nb: requires x provides y\nc: requires y");
    ChangedBoot changed(boot);
    changed.Remove(IndexOf(boot, "b"));
    const Boot made = changed.Make();
    EXPECT_EQ(Waits(made), "");
    EXPECT_EQ(test::Names(made, StartOrder(made)), "a c");
}

}  // namespace
}  // namespace lofter::analyze
