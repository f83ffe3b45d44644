#include "hopper/LegacyDaemonPlugin.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "base/Exception.h"
#include "support/FailureOf.h"
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
    EXPECT_EQ(test::FailureOf<NotImplementedException>([&] { daemon.ApplyHostProfile(); }),
              "method `LegacyDaemonPlugin::ApplyHostProfile' is not implemented");
}

}  // namespace
}  // namespace lofter
