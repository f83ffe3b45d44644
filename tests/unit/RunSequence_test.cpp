#include "RunSequence.h"

#include <filesystem>
#include <functional>
#include <string>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include "base/Paths.h"
#include "executor/ControlSocket.h"
#include "posix/Descriptor.h"
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
            Settings settings;
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

// Dump runs on a host without plugins whose executor answers from the start and cannot be told to stop.
class RunWithADeafExecutor : public testing::Test {
  protected:
    void SetUp() override {
        for (const char* directory : {"plugins", "var/log", "var/run/tessel"}) {
            fs::create_directories(folder / directory);
        }
    }

    // What the observation says after the run, which has been prepared in its root.
    std::string Run(
        const std::function<std::string(int, const Settings&, const test::LogCapture&)>& observe,
        const std::function<void(Settings&)>& prepare = [](Settings&) {}) {
        return test::InForkedChild([&] {
            const test::LogCapture log;
            test::EnterRoot(folder.Path());
            const ControlSocketAddress address(paths::kControlSocket);
            const posix::Descriptor executor(::socket(AF_UNIX, SOCK_STREAM, 0));
            if (::bind(executor.Get(), address.Get(), ControlSocketAddress::Length()) != 0 ||
                ::listen(executor.Get(), 8) != 0) {
                return std::string("no executor");
            }
            test::FilterSyscalls({{.number = SYS_sendto, .error = EPIPE}});
            RunOptions options;
            options.dump = true;
            options.dumpPath = "/dump";
            options.pluginDirectory = "/plugins";
            Settings settings;
            prepare(settings);
            const int status = RunSequence(options, {}, settings).Run();
            return observe(status, settings, log);
        });
    }

    static std::string Threads(int, const Settings& settings, const test::LogCapture&) {
        return std::to_string(settings.threadCount) + (settings.parallel ? " in parallel" : " serially");
    }

    test::TemporaryDirectory folder;
};

TEST_F(RunWithADeafExecutor, FailsInItsLastStep) {
    EXPECT_EQ(Run([](int status, const Settings&, const test::LogCapture& log) {
                  std::string outcome = std::to_string(status);
                  for (const auto& entry : log.Entries()) {
                      outcome += "; " + test::TextOf(entry);
                  }
                  return outcome;
              }),
              "1; info Launching Executor; error Failed to stop Executor: Failed sending STOP to executorBroken pipe");
    EXPECT_EQ(folder.Read("dump"), "digraph g {\n}\n");
    EXPECT_TRUE(folder.Read("var/log/sysboot.log").starts_with("Krxkernel Initialization Time: 0\n"));
}

TEST_F(RunWithADeafExecutor, HasNoThreadsInParallelWithoutPlugins) {
    EXPECT_EQ(Run(Threads, [](Settings& settings) { settings.parallel = true; }), "0 in parallel");
}

TEST_F(RunWithADeafExecutor, HasOneThreadUnlessItIsParallel) {
    EXPECT_EQ(Run(Threads), "1 serially");
}

TEST_F(RunWithADeafExecutor, HasOneThreadOnAStatelessHostWhateverIsAskedFor) {
    folder.Write("stateless.tgz", "");
    EXPECT_EQ(Run(Threads, [](Settings& settings) { settings.parallel = true; }), "1 serially");
}

}  // namespace
}  // namespace lofter
