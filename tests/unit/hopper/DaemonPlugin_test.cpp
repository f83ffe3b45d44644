#include "hopper/DaemonPlugin.h"

#include <typeinfo>

#include <gtest/gtest.h>
#include <unistd.h>

#include "Activation.h"
#include "base/Exception.h"
#include "base/Logging.h"
#include "base/Settings.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"
#include "support/WillingOperator.h"

namespace lofter {
namespace {

using Lines = std::vector<std::string>;

class TestDaemon : public DaemonPlugin {
  public:
    explicit TestDaemon(Activator& pluginActivator)
        : DaemonPlugin("crond", 20, kInitScriptClass, {true, 40, environ}, pluginActivator) {}

    void StartsWith(const std::string& command) { operations[2] = command; }
    void StopsWith(const std::string& command) { operations[4] = command; }
};

class DaemonPluginTest : public testing::Test {
  protected:
    // The text of what the operation throws, which has to be of exactly this type.
    template <typename Type>
    std::string Thrown(void (DaemonPlugin::*operation)()) {
        try {
            (daemon.*operation)();
        } catch (const std::exception& failure) {
            EXPECT_TRUE(typeid(failure) == typeid(Type)) << typeid(failure).name();
            return failure.what();
        }
        return "nothing thrown";
    }

    const test::TemporaryDirectory folder;
    const std::string succeeds = folder.WriteScript("succeeds", "exit 0");
    const std::string fails = folder.WriteScript("fails", "exit 1");
    const Settings settings;
    test::WillingOperator willing;
    Activation activation{settings, willing};
    TestDaemon daemon{activation};
    test::LogCapture log;
};

TEST_F(DaemonPluginTest, HoldsItsPriorityAndKindAndHasNotBeenTouchedAtFirst) {
    EXPECT_EQ(daemon.Name(), "crond");
    EXPECT_EQ(daemon.Priority(), 20U);
    EXPECT_EQ(daemon.ScheduleClass(), 3U);
    EXPECT_EQ(static_cast<std::uint32_t>(daemon.State()), 0U);
    EXPECT_EQ(daemon.GetVersion(), -1);
}

TEST_F(DaemonPluginTest, IsStartedByItsStartCommand) {
    daemon.StartsWith(succeeds);
    daemon.StartPlugin();
    EXPECT_EQ(static_cast<std::uint32_t>(daemon.State()), 2U);
    EXPECT_EQ(log.Lines(kInfo), Lines{"crond started."});
}

TEST_F(DaemonPluginTest, RecordsAndReportsAStartThatFails) {
    daemon.StartsWith(fails);
    const std::string reason = "Execution of command: " + fails + " failed with status: 1";
    EXPECT_EQ(Thrown<MethodFailedException>(&DaemonPlugin::StartPlugin), "crond->start() failed: " + reason);
    EXPECT_EQ(static_cast<std::uint32_t>(daemon.State()), 20U);
    EXPECT_EQ(log.Lines(kWarning), Lines{"Lofter failed to start: crond reason: " + reason});
    EXPECT_EQ(log.Lines(kInfo), Lines{});
}

TEST_F(DaemonPluginTest, CannotBeStartedWithoutAStartCommand) {
    const std::string reason = "crond Daemon operations are not initialized";
    EXPECT_EQ(Thrown<MethodFailedException>(&DaemonPlugin::StartPlugin), "crond->start() failed: " + reason);
    EXPECT_EQ(static_cast<std::uint32_t>(daemon.State()), 20U);
    EXPECT_EQ(log.Lines(kWarning), Lines{"Lofter failed to start: crond reason: " + reason});
}

TEST_F(DaemonPluginTest, IsStoppedByItsStopCommand) {
    daemon.StopsWith(succeeds);
    daemon.StopDaemon();
    EXPECT_EQ(static_cast<std::uint32_t>(daemon.State()), 12U);
    EXPECT_EQ(log.Lines(kInfo), Lines{"crond stopped."});
}

TEST_F(DaemonPluginTest, PassesOnTheReasonOfAFailedStopAsItIsAndKeepsItsState) {
    daemon.StartsWith(succeeds);
    daemon.StopsWith(fails);
    daemon.StartPlugin();
    log.Clear();
    const std::string reason = "Execution of command: " + fails + " failed with status: 1";
    EXPECT_EQ(Thrown<Exception>(&DaemonPlugin::StopDaemon), reason);
    EXPECT_EQ(static_cast<std::uint32_t>(daemon.State()), 2U);
    EXPECT_EQ(log.Entries(),
              (std::vector<test::LogCapture::Entry>{{kWarning, "Lofter failed to stop: crond reason: " + reason}}));
}

TEST_F(DaemonPluginTest, CannotBeStoppedWithoutAStopCommand) {
    EXPECT_EQ(Thrown<Exception>(&DaemonPlugin::StopDaemon), "crond Daemon operations are not initialized");
    EXPECT_EQ(static_cast<std::uint32_t>(daemon.State()), 0U);
}

TEST_F(DaemonPluginTest, OffersNothingBesidesStartAndStop) {
    EXPECT_FALSE(daemon.HasApplyHostProfile());
    EXPECT_EQ(Thrown<NotImplementedException>(&DaemonPlugin::SSLReset),
              "method `DaemonPlugin::SSLReset' is not implemented");
    EXPECT_EQ(Thrown<NotImplementedException>(&DaemonPlugin::Restart),
              "method `DaemonPlugin::Restart' is not implemented");
    EXPECT_EQ(Thrown<NotImplementedException>(&DaemonPlugin::ApplyHostProfile),
              "method `DaemonPlugin::ApplyHostProfile' is not implemented");
}

TEST_F(DaemonPluginTest, IsActivatedAsANode) {
    daemon.StartsWith(succeeds);
    daemon.Start();
    EXPECT_EQ(static_cast<std::uint32_t>(daemon.State()), 2U);
    EXPECT_NE(daemon.EndTime().tv_sec, 0);
}

TEST_F(DaemonPluginTest, SurvivesAnActivationThatFails) {
    daemon.StartsWith(fails);
    daemon.Start();
    EXPECT_EQ(static_cast<std::uint32_t>(daemon.State()), 20U);
    EXPECT_NE(daemon.EndTime().tv_sec, 0);
}

TEST_F(DaemonPluginTest, IsDeactivatedAsANodeWithoutATimeBeingTaken) {
    daemon.StopsWith(succeeds);
    daemon.Stop();
    EXPECT_EQ(static_cast<std::uint32_t>(daemon.State()), 12U);
    EXPECT_EQ(log.Lines(kInfo), (Lines{"executing stop for daemon crond.", "crond stopped."}));
    EXPECT_EQ(daemon.StartTime().tv_sec, 0);
    EXPECT_EQ(daemon.EndTime().tv_sec, 0);
}

TEST_F(DaemonPluginTest, SurvivesADeactivationThatFails) {
    daemon.StopsWith(fails);
    EXPECT_NO_THROW(daemon.Stop());
    EXPECT_EQ(static_cast<std::uint32_t>(daemon.State()), 0U);
}

}  // namespace
}  // namespace lofter
