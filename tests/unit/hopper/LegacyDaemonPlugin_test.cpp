#include "hopper/LegacyDaemonPlugin.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Settings.h"
#include "graph/Barriers.h"
#include "plugins/Exception.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

namespace lofter {
namespace {

using Nodes = std::vector<Node*>;

class LegacyDaemonPluginTest : public testing::Test {
  protected:
    LegacyDaemonPluginTest() {
        ForgetGraph();
        Settings::Instance().daemonWait = true;
        Settings::Instance().environment = environ;
    }
    ~LegacyDaemonPluginTest() override { ForgetGraph(); }
};

TEST_F(LegacyDaemonPluginTest, RunsItsScriptWithStartAndStop) {
    const test::TemporaryDirectory folder;
    const std::string script = folder.WriteScript("crond", "echo \"$1\" >> ${0%/*}/calls");
    LegacyDaemonPlugin daemon("crond", script, 20);
    daemon.StartPlugin();
    daemon.StopDaemon();
    EXPECT_EQ(folder.Read("calls"), "start\nstop\n");
}

TEST_F(LegacyDaemonPluginTest, ComesAfterEveryOtherKindOfNode) {
    const LegacyDaemonPlugin daemon("crond", "/etc/init.d/crond", 20);
    EXPECT_EQ(daemon.ScheduleClass(), 3U);
    EXPECT_EQ(daemon.Priority(), 20U);
}

TEST_F(LegacyDaemonPluginTest, WaitsForNothingInTheLowestGroup) {
    LegacyDaemonPlugin daemon("crond", "/etc/init.d/crond", 20);
    EXPECT_EQ(daemon.Dependencies(), Nodes{});
    EXPECT_EQ(daemon.Dependents(), Nodes{GetBarrier("_<->_priority_<->_20", false)});
}

TEST_F(LegacyDaemonPluginTest, SharesTheBarrierOfItsPriority) {
    LegacyDaemonPlugin cron("crond", "/etc/init.d/crond", 20);
    LegacyDaemonPlugin web("nginx", "/etc/init.d/nginx", 20);
    EXPECT_EQ(AllBarriers().size(), 1U);
    EXPECT_EQ(GetPriorityBarrier(20)->Dependencies(), (Nodes{&cron, &web}));
}

TEST_F(LegacyDaemonPluginTest, WaitsForTheGroupBeforeItsOwn) {
    LegacyDaemonPlugin late("nginx", "/etc/init.d/nginx", 30);
    LegacyDaemonPlugin early("crond", "/etc/init.d/crond", 10);
    EXPECT_EQ(early.Dependencies(), Nodes{});
    EXPECT_EQ(late.Dependencies(), Nodes{GetPriorityBarrier(10)});

    LegacyDaemonPlugin between("dropbear", "/etc/init.d/dropbear", 20);
    EXPECT_EQ(between.Dependencies(), Nodes{GetPriorityBarrier(10)});
    EXPECT_EQ(late.Dependencies(), (Nodes{GetPriorityBarrier(10), GetPriorityBarrier(20)}));
}

TEST_F(LegacyDaemonPluginTest, KnowsNoHostProfile) {
    LegacyDaemonPlugin daemon("crond", "/etc/init.d/crond", 20);
    EXPECT_FALSE(daemon.HasApplyHostProfile());
    try {
        daemon.ApplyHostProfile();
        FAIL() << "nothing thrown";
    } catch (const NotImplementedException& failure) {
        EXPECT_STREQ(failure.what(), "method `LegacyDaemonPlugin::ApplyHostProfile' is not implemented");
    }
}

// The settings of the run are taken when the plugin is made, and a time-out above the signed range waits without end.
TEST_F(LegacyDaemonPluginTest, TakesTheTimeOutAsASignedNumber) {
    const test::TemporaryDirectory folder;
    const std::string script = folder.WriteScript("slow", "exec sleep 1.5");
    Settings::Instance().daemonWaitTimeout = 4294967295;
    LegacyDaemonPlugin patient("patient", script, 20);
    Settings::Instance().daemonWaitTimeout = 1;
    LegacyDaemonPlugin hasty("hasty", script, 20);
    Settings::Instance().daemonWaitTimeout = 40;

    const test::LogCapture log;
    EXPECT_NO_THROW(patient.StartPlugin());
    EXPECT_THROW(hasty.StartPlugin(), MethodFailedException);
    EXPECT_GT(waitpid(-1, nullptr, 0), 0) << "the script was to run on";
    EXPECT_EQ(log.Lines(), (std::vector<std::string>{"patient started.",
                                                     "Lofter failed to start: hasty reason: Execution of command: '" +
                                                         script + " start' timed out."}));
}

}  // namespace
}  // namespace lofter
