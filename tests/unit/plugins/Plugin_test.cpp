#include "plugins/Plugin.h"

#include <gtest/gtest.h>

#include "base/Exception.h"
#include "support/FailureOf.h"
#include "support/Faults.h"
#include "support/Plugins.h"

namespace lofter {
namespace {

class BarePlugin : public Plugin {
  public:
    BarePlugin() : Plugin(PluginDescription(PluginKind::Debug, "bare"), test::NoActivator::Instance()) {}
    void StartPlugin() override {}
    bool HasApplyHostProfile() const override { return false; }
    void ApplyHostProfile() override {}
};

TEST(Plugin, KeepsEveryOptionalFieldEmptyUntilItsKindSetsIt) {
    const BarePlugin plugin;
    EXPECT_EQ(plugin.Name(), "bare");
    EXPECT_EQ(plugin.GetVersion(), -1);
    EXPECT_FALSE(plugin.RunOnce());
    EXPECT_EQ(plugin.PluginVersion(), "");
    EXPECT_TRUE(plugin.RequiredFlags().empty());
    EXPECT_TRUE(plugin.DisablingFlags().empty());
    EXPECT_EQ(plugin.StartTime().tv_sec, 0);
    EXPECT_EQ(plugin.StartTime().tv_usec, 0);
    EXPECT_EQ(plugin.EndTime().tv_sec, 0);
    EXPECT_EQ(plugin.EndTime().tv_usec, 0);
    EXPECT_EQ(plugin.ElapsedMicroseconds(), 0);
    EXPECT_EQ(plugin.ScheduleClass(), 1U);
    EXPECT_EQ(plugin.State(), NodeState::Idle);
}

TEST(Plugin, CountsElapsedTimeAcrossTheBoundaryOfASecond) {
    BarePlugin plugin;
    plugin.SetStartTime({10, 999'999});
    plugin.SetEndTime({11, 1});
    EXPECT_EQ(plugin.ElapsedMicroseconds(), 2);
    plugin.SetEndTime({13, 0});
    EXPECT_EQ(plugin.ElapsedMicroseconds(), 2'000'001);
}

TEST(Plugin, CountsAClockThatWasSetBackAsNegativeTime) {
    BarePlugin plugin;
    plugin.SetStartTime({1'700'000'000, 0});
    EXPECT_EQ(plugin.ElapsedMicroseconds(), -1'700'000'000'000'000);
}

TEST(Plugin, IsDrawnInTheDefaultShape) {
    EXPECT_EQ(BarePlugin().DotAttributes(), "");
}

TEST(Plugin, DoesNothingWhenItIsStopped) {
    BarePlugin plugin;
    plugin.Stop();
    EXPECT_EQ(plugin.EndTime().tv_sec, 0);
    EXPECT_EQ(plugin.State(), NodeState::Idle);
}

TEST(Plugin, IsNotBuiltWithoutItsConditionVariable) {
    const test::FailingCall noCondition(test::Call::PthreadCondInit, 0);
    EXPECT_EQ(test::FailureOf<Exception>([&] { const BarePlugin plugin; }),
              "Condition variable for Node could not be initialized");
}

}  // namespace
}  // namespace lofter
