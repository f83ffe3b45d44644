#include "plugins/DebugPlugin.h"

#include <filesystem>
#include <memory>

#include <gtest/gtest.h>

#include "base/Exception.h"
#include "base/Logging.h"
#include "support/FailureOf.h"
#include "support/Faults.h"
#include "support/LogCapture.h"
#include "support/Plugins.h"
#include "support/TemporaryDirectory.h"

namespace lofter {
namespace {

using Entries = std::vector<test::LogCapture::Entry>;

class DebugPluginTest : public testing::Test {
  protected:
    static std::unique_ptr<DebugPlugin> Step(const std::string& command) {
        PluginDescription description(PluginKind::Debug, "step");
        description.version = 1;
        description.startCommands = {command};
        return test::MakePlugin<DebugPlugin>(description);
    }
    static void Run(const std::string& command) { Step(command)->StartPlugin(); }

    test::LogCapture log;
    test::TemporaryDirectory folder;
};

TEST_F(DebugPluginTest, IsOfVersionOneAndNeedsNoFlags) {
    const auto plugin = Step("true");
    EXPECT_EQ(plugin->GetVersion(), 1);
    EXPECT_EQ(plugin->PluginVersion(), "");
    EXPECT_FALSE(plugin->RunOnce());
    EXPECT_TRUE(plugin->RequiredFlags().empty());
    EXPECT_TRUE(plugin->DisablingFlags().empty());
    EXPECT_EQ(plugin->ScheduleClass(), 1U);
    EXPECT_EQ(plugin->DotAttributes(), "");
}

TEST_F(DebugPluginTest, RunsItsCommandThroughTheShell) {
    Run("echo one > '" + (folder / "out") + "'; echo two >> '" + (folder / "out") + "'");
    EXPECT_EQ(folder.Read("out"), "one\ntwo\n");
    EXPECT_EQ(log.Entries(), Entries{});
}

TEST_F(DebugPluginTest, DoesNotRunItsCommandBeforeItIsStarted) {
    const auto plugin = Step("echo > '" + (folder / "out") + "'");
    EXPECT_EQ(folder.Read("out"), "");
    EXPECT_FALSE(std::filesystem::exists(folder / "out"));
}

TEST_F(DebugPluginTest, LogsTheRawWaitStatusOfACommandThatFails) {
    Run("exit 1");
    Run("exit 255");
    Run("kill -9 $$");
    Run("/no/such/command 2>/dev/null");
    EXPECT_EQ(log.Entries(), (Entries{{kInfo, "debug injection 'step' returned 0x000100"},
                                      {kInfo, "debug injection 'step' returned 0x00ff00"},
                                      {kInfo, "debug injection 'step' returned 0x000009"},
                                      {kInfo, "debug injection 'step' returned 0x007f00"}}));
}

TEST_F(DebugPluginTest, LogsAShellThatCouldNotBeRun) {
    const test::FailingCall noShell(test::Call::System, 0);
    Run("true");
    EXPECT_EQ(log.Entries(), (Entries{{kInfo, "debug injection 'step' returned 0xffffffff"}}));
}

TEST_F(DebugPluginTest, TakesNoPartInHostProfiles) {
    const auto plugin = Step("true");
    EXPECT_FALSE(plugin->HasApplyHostProfile());
    EXPECT_EQ(test::FailureOf<NotImplementedException>([&] { plugin->ApplyHostProfile(); }),
              "method `DebugPlugin::ApplyHostProfile' is not implemented");
}

}  // namespace
}  // namespace lofter
