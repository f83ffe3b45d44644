#include "RunSequence.h"

#include <filesystem>
#include <functional>
#include <string>

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include "support/ChildOutcome.h"
#include "support/Faults.h"
#include "support/LogCapture.h"
#include "support/SyscallFilter.h"
#include "support/TemporaryDirectory.h"

namespace lofter {
namespace {

namespace fs = std::filesystem;

// Daemon runs on a host without daemons. Runs themselves are tested on whole hosts; here is what a host cannot be made
// to lack.
class RunOnAnEmptyHost : public testing::Test {
  protected:
    void SetUp() override {
        folder.WriteScript("bin/chkconfig", "exit 0");
        fs::copy_file("/bin/busybox", folder / "bin/sh");
        fs::create_directories(folder / "var/log");
        folder.Write("var/log/sysboot.log", "boot\n");
    }

    // The exit status, and what was logged.
    std::string Run(std::uint32_t threads, const std::function<void()>& prepare) {
        return test::InForkedChild([&] {
            const test::LogCapture log;
            test::EnterRoot(folder.Path());
            Settings& settings = Settings::Instance();
            settings.method = "start";
            settings.threadCount = threads;
            RunOptions options;
            options.daemon = true;
            prepare();
            std::string outcome = std::to_string(RunSequence(options, {}, settings).Run());
            for (const std::string& line : log.Lines()) {
                outcome += "; " + line;
            }
            return outcome;
        });
    }

    test::TemporaryDirectory folder;
};

TEST_F(RunOnAnEmptyHost, Succeeds) {
    EXPECT_EQ(Run(4, [] {}), "0");
}

TEST_F(RunOnAnEmptyHost, GoesOnWithOneThreadWhenThereAreNotEnough) {
    const test::FailingCall noThirdThread(test::Call::PthreadCreate, 2, 1);
    EXPECT_EQ(Run(4, [] {}), "0; Could not create enough execution threads. (2 created, 4requested)");
}

TEST_F(RunOnAnEmptyHost, FailsWithoutAnyThread) {
    const std::string last =
        "unable to execute plugins: Could not create enough execution threads. (0 created, 1requested)";
    const test::FailingCall noThread(test::Call::PthreadCreate, 0);
    EXPECT_EQ(Run(4, [] {}), "1; Could not create enough execution threads. (0 created, 4requested); " + last);
    EXPECT_EQ(Run(1, [] {}), "1; " + last);
}

TEST_F(RunOnAnEmptyHost, StaysWhereItIsWhenTheRootCannotBeEntered) {
    EXPECT_EQ(Run(1, [] { test::FilterSyscalls({{.number = SYS_chdir, .error = EACCES}}); }),
              "0; unable to change filesystem root: Permission denied.");
}

}  // namespace
}  // namespace lofter
