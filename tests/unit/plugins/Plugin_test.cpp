#include "plugins/Plugin.h"

#include <gtest/gtest.h>

#include "graph/Barriers.h"
#include "plugins/Exception.h"
#include "support/Faults.h"
#include "support/TestGraph.h"

namespace lofter {
namespace {

using test::Names;

class BarePlugin : public Plugin {
  public:
    using Plugin::ProvideBarrier;
    using Plugin::RequireBarrier;

    BarePlugin() : Plugin("bare") {}
    void StartPlugin() override {}
    bool HasApplyHostProfile() const override { return false; }
    void ApplyHostProfile() override {}
};

class PluginTest : public testing::Test {
  protected:
    ~PluginTest() override { ForgetGraph(); }
};

TEST_F(PluginTest, KeepsEveryOptionalFieldEmptyUntilItsKindSetsIt) {
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

TEST_F(PluginTest, CountsElapsedTimeAcrossTheBoundaryOfASecond) {
    BarePlugin plugin;
    plugin.SetStartTime({10, 999'999});
    plugin.SetEndTime({11, 1});
    EXPECT_EQ(plugin.ElapsedMicroseconds(), 2);
    plugin.SetEndTime({13, 0});
    EXPECT_EQ(plugin.ElapsedMicroseconds(), 2'000'001);
}

TEST_F(PluginTest, CountsAClockThatWasSetBackAsNegativeTime) {
    BarePlugin plugin;
    plugin.SetStartTime({1'700'000'000, 0});
    EXPECT_EQ(plugin.ElapsedMicroseconds(), -1'700'000'000'000'000);
}

TEST_F(PluginTest, IsDrawnInTheDefaultShape) {
    EXPECT_EQ(BarePlugin().DotAttributes(), "");
}

TEST_F(PluginTest, LinksItselfToBarriersByNameInTheOrderOfItsMetadata) {
    BarePlugin plugin;
    plugin.RequireBarrier("b");
    plugin.RequireBarrier("a");
    plugin.ProvideBarrier("d");
    plugin.ProvideBarrier("c");
    EXPECT_EQ(Names(plugin.Dependencies()), "b a");
    EXPECT_EQ(Names(plugin.Dependents()), "d c");
    EXPECT_EQ(Names(GetBarrier("b", false)->Dependents()), "bare");
    EXPECT_EQ(Names(GetBarrier("d", false)->Dependencies()), "bare");
}

TEST_F(PluginTest, SharesABarrierWithEveryPluginThatNamesIt) {
    BarePlugin provider;
    BarePlugin consumer;
    provider.ProvideBarrier("link");
    consumer.RequireBarrier("link");
    EXPECT_EQ(provider.Dependents(), consumer.Dependencies());
}

TEST_F(PluginTest, DoesNothingWhenItIsStopped) {
    BarePlugin plugin;
    plugin.Stop();
    EXPECT_EQ(plugin.EndTime().tv_sec, 0);
    EXPECT_EQ(plugin.State(), NodeState::Idle);
}

TEST_F(PluginTest, IsNotBuiltWithoutItsConditionVariable) {
    const test::FailingCall noCondition(test::Call::PthreadCondInit, 0);
    try {
        const BarePlugin plugin;
        FAIL() << "was built";
    } catch (const Exception& failure) {
        EXPECT_STREQ(failure.what(), "Condition variable for Node could not be initialized");
    }
}

}  // namespace
}  // namespace lofter
