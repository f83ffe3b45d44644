#include "hopper/LegacyDaemonPlugin.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/Exception.h"
#include "base/Settings.h"
#include "support/LogCapture.h"
#include "support/Plugins.h"
#include "support/TemporaryDirectory.h"

namespace lofter {
namespace {

LegacyDaemonPlugin Daemon(const std::string& name, const std::string& script,
                          const CommandSettings& settings = {true, 40, environ}) {
    return {name, script, 20, settings, test::NoActivator::Instance()};
}

TEST(LegacyDaemonPlugin, RunsItsScriptWithStartAndStop) {
    const test::TemporaryDirectory folder;
    const std::string script = folder.WriteScript("crond", "echo \"$1\" >> ${0%/*}/calls");
    LegacyDaemonPlugin daemon = Daemon("crond", script);
    daemon.StartPlugin();
    daemon.StopDaemon();
    EXPECT_EQ(folder.Read("calls"), "start\nstop\n");
}

TEST(LegacyDaemonPlugin, ComesAfterEveryOtherKindOfNode) {
    const LegacyDaemonPlugin daemon = Daemon("crond", "/etc/init.d/crond");
    EXPECT_EQ(daemon.ScheduleClass(), 3U);
    EXPECT_EQ(daemon.Priority(), 20U);
}

TEST(LegacyDaemonPlugin, KnowsNoHostProfile) {
    LegacyDaemonPlugin daemon = Daemon("crond", "/etc/init.d/crond");
    EXPECT_FALSE(daemon.HasApplyHostProfile());
    try {
        daemon.ApplyHostProfile();
        FAIL() << "nothing thrown";
    } catch (const NotImplementedException& failure) {
        EXPECT_STREQ(failure.what(), "method `LegacyDaemonPlugin::ApplyHostProfile' is not implemented");
    }
}

// A time-out above the signed range waits without end.
TEST(LegacyDaemonPlugin, TakesTheTimeOutAsASignedNumber) {
    const test::TemporaryDirectory folder;
    const std::string script = folder.WriteScript("slow", "exec sleep 1.5");
    Settings settings;
    settings.daemonWait = true;
    settings.environment = environ;
    settings.daemonWaitTimeout = 4294967295;
    LegacyDaemonPlugin patient = Daemon("patient", script, CommandSettingsOf(settings));
    settings.daemonWaitTimeout = 1;
    LegacyDaemonPlugin hasty = Daemon("hasty", script, CommandSettingsOf(settings));

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
