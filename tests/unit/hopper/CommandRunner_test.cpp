#include "hopper/CommandRunner.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <iterator>
#include <limits>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/Exception.h"
#include "base/Logging.h"
#include "base/Settings.h"
#include "posix/Descriptor.h"
#include "support/FailureOf.h"
#include "support/LogCapture.h"
#include "support/OpenDescriptors.h"
#include "support/TemporaryDirectory.h"
#include "tslibs/log.h"

namespace lofter {
namespace {

CommandSettings NotWaiting() {
    return {false, 40, environ};
}
CommandSettings Waiting(std::int32_t seconds) {
    return {true, seconds, environ};
}

std::string RunFailure(const std::string& command, const CommandSettings& settings = Waiting(40),
                       const std::function<void(pid_t)>& pause = PauseBetweenPolls) {
    return test::FailureOf<Exception>([&] { RunCommand(command, settings, pause); });
}

// A script that says its process id and then runs until it is released.
class RunningScript {
  public:
    explicit RunningScript(const test::TemporaryDirectory& folder) {
        path = folder.WriteScript("runs", "echo $$ > ${0%/*}/said; read word < ${0%/*}/told; exit 0");
        said = MakeFifo(folder / "said");
        told = MakeFifo(folder / "told");
    }

    const std::string& Path() const { return path; }

    // Waits for the script to run.
    pid_t Id() {
        pollfd readable{said.Get(), POLLIN, 0};
        char text[32] = {};
        if (id == 0 && poll(&readable, 1, 60'000) == 1 && read(said.Get(), text, sizeof text - 1) > 0) {
            id = static_cast<pid_t>(std::stol(text));
        }
        return id;
    }

    // Lets it end and waits until it has, without collecting it.
    void Release() {
        ASSERT_EQ(write(told.Get(), "go\n", 3), 3);
        siginfo_t ended{};
        ASSERT_EQ(waitid(P_PID, static_cast<id_t>(Id()), &ended, WEXITED | WNOWAIT), 0);
    }

  private:
    static posix::Descriptor MakeFifo(const std::string& path) {
        mkfifo(path.c_str(), 0600);
        return posix::Descriptor(open(path.c_str(), O_RDWR | O_CLOEXEC));
    }

    std::string path;
    posix::Descriptor said;
    posix::Descriptor told;
    pid_t id = 0;
};

TEST(CommandRunner, ReturnsWhenTheCommandExitsWithZero) {
    const test::TemporaryDirectory folder;
    const std::string script = folder.WriteScript("succeeds", "echo \"$1\" > ${0%/*}/argument");
    EXPECT_EQ(RunFailure(script + " start"), test::kNoFailure);
    EXPECT_EQ(folder.Read("argument"), "start\n");
}

TEST(CommandRunner, SaysTheStatusOfACommandThatFails) {
    const test::TemporaryDirectory folder;
    const std::string command = folder.WriteScript("fails", "exit 3") + " start";
    EXPECT_EQ(RunFailure(command), "Execution of command: " + command + " failed with status: 3");
    EXPECT_EQ(RunFailure(command, NotWaiting()), "Execution of command: " + command + " failed with status: 3");
}

TEST(CommandRunner, SaysTheSignalThatKilledTheCommand) {
    const test::TemporaryDirectory folder;
    const std::string command = folder.WriteScript("dies", "kill -9 $$") + " start";
    EXPECT_EQ(RunFailure(command), "Execution of command: " + command + " failed with signal: 9");
}

TEST(CommandRunner, LeavesACommandThatIsNotWaitedForRunningAfterFiftyPolls) {
    const test::TemporaryDirectory folder;
    RunningScript script(folder);
    int polls = 0;
    EXPECT_EQ(RunFailure(script.Path(), NotWaiting(),
                         [&](pid_t) {
                             ++polls;
                             ASSERT_GT(script.Id(), 0);
                         }),
              test::kNoFailure);
    EXPECT_EQ(polls, 50);

    script.Release();
    int status = -1;
    ASSERT_EQ(waitpid(script.Id(), &status, 0), script.Id());
    EXPECT_TRUE(WIFEXITED(status)) << "the script was interfered with: " << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(CommandRunner, GivesUpWaitingAfterOneSecondOfPollsAndLeavesTheCommandRunning) {
    const test::TemporaryDirectory folder;
    RunningScript script(folder);
    int polls = 0;
    EXPECT_EQ(RunFailure(script.Path() + " start", Waiting(1),
                         [&](pid_t) {
                             ++polls;
                             ASSERT_GT(script.Id(), 0);
                         }),
              "Execution of command: '" + script.Path() + " start' timed out.");
    EXPECT_EQ(polls, 5);

    script.Release();
    int status = -1;
    ASSERT_EQ(waitpid(script.Id(), &status, 0), script.Id());
    EXPECT_TRUE(WIFEXITED(status)) << "the script was interfered with: " << status;
}

// Leaves the script running: the polls pass in no time.
void LeaveRunning(RunningScript& script) {
    EXPECT_EQ(RunFailure(script.Path(), NotWaiting(), [&](pid_t) { ASSERT_GT(script.Id(), 0); }), test::kNoFailure);
}

TEST(CommandRunner, PausesAFifthOfASecondWhileTheCommandRuns) {
    const test::TemporaryDirectory folder;
    RunningScript script(folder);
    LeaveRunning(script);
    const auto start = std::chrono::steady_clock::now();
    PauseBetweenPolls(script.Id());
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
    script.Release();
    EXPECT_EQ(waitpid(script.Id(), nullptr, 0), script.Id());
}

// Of a child that has ended, a hundred pauses take no time; of one that runs, they would take twenty seconds.
TEST(CommandRunner, PausesNoLongerThanTheCommandRuns) {
    const test::TemporaryDirectory folder;
    RunningScript script(folder);
    LeaveRunning(script);
    script.Release();
    const auto start = std::chrono::steady_clock::now();
    for (int pauses = 0; pauses < 100; ++pauses) {
        PauseBetweenPolls(script.Id());
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_EQ(waitpid(script.Id(), nullptr, 0), script.Id());
}

// Kept on purpose: the last pause counts against a command whether it ends in it or not.
TEST(CommandRunner, CountsACommandThatEndsInTheLastPauseAsTimedOut) {
    const test::TemporaryDirectory folder;
    RunningScript script(folder);
    int polls = 0;
    EXPECT_EQ(RunFailure(script.Path(), Waiting(1),
                         [&](pid_t) {
                             if (++polls == 5) {
                                 script.Release();
                             }
                         }),
              "Execution of command: '" + script.Path() + "' timed out.");
    EXPECT_EQ(waitpid(script.Id(), nullptr, 0), script.Id());
}

class WaitWithoutEnd : public testing::TestWithParam<std::int32_t> {};

TEST_P(WaitWithoutEnd, LastsUntilTheCommandEnds) {
    const test::TemporaryDirectory folder;
    RunningScript script(folder);
    int polls = 0;
    EXPECT_EQ(RunFailure(script.Path(), Waiting(GetParam()),
                         [&](pid_t) {
                             if (++polls == 1000) {
                                 script.Release();
                             }
                         }),
              test::kNoFailure);
    EXPECT_EQ(polls, 1000);
}

INSTANTIATE_TEST_SUITE_P(CommandRunner, WaitWithoutEnd, testing::Values(0, -1));

TEST(CommandRunner, RoundsTheTimeOutUpToWholePollsWithoutOverflow) {
    EXPECT_EQ(PollBudget(NotWaiting()), 50);
    EXPECT_EQ(PollBudget(Waiting(40)), 200);
    EXPECT_EQ(PollBudget(Waiting(1)), 5);
    EXPECT_EQ(PollBudget(Waiting(0)), 0);
    EXPECT_EQ(PollBudget(Waiting(-1)), -4);
    EXPECT_EQ(PollBudget(Waiting(std::numeric_limits<std::int32_t>::max())), 10'737'418'235);
    EXPECT_EQ(PollBudget(Waiting(std::numeric_limits<std::int32_t>::min())), -10'737'418'239);
}

// A time-out above the signed range waits without end.
TEST(CommandRunner, TakesTheTimeOutOfTheCommandLineAsASignedNumber) {
    Settings settings;
    settings.daemonWaitTimeout = 4294967295;
    EXPECT_EQ(CommandSettingsOf(settings).waitTimeoutSeconds, -1);
}

TEST(CommandRunner, IgnoresExtraBlanksAndKnowsNoQuotes) {
    const test::TemporaryDirectory folder;
    const std::string script =
        folder.WriteScript("prints", "for word in \"$@\"; do echo \"$word\"; done > ${0%/*}/words");
    EXPECT_EQ(RunFailure("  " + script + " \t start\n 'a  b' \"c\\ "), test::kNoFailure);
    EXPECT_EQ(folder.Read("words"), "start\n'a\nb'\n\"c\\\n");
}

TEST(CommandRunner, RunsTheCommandInTheRootDirectoryAwayFromTheCallersStreams) {
    const test::TemporaryDirectory folder;
    const std::string script = folder.WriteScript(
        "looks",
        "seen=$(for what in cwd fd/0 fd/1 fd/2; do readlink /proc/$$/$what; done); echo \"$seen\" > ${0%/*}/seen");
    EXPECT_EQ(RunFailure(script), test::kNoFailure);
    // Only where the log is something that can be opened, such as a pipe, do error messages go there.
    const posix::Descriptor log(open("/dev/log", O_WRONLY | O_CLOEXEC));
    const std::string error = log ? std::filesystem::canonical("/dev/log").string() : "/dev/null";
    EXPECT_EQ(folder.Read("seen"), "/\n/dev/null\n/dev/null\n" + error + "\n");
}

TEST(CommandRunner, GivesTheChildThatEnvironmentAndNoOther) {
    const test::TemporaryDirectory folder;
    const std::string script = folder.WriteScript("prints", "echo \"$COLOUR $HOME\" > ${0%/*}/environment");
    char colour[] = "COLOUR=green";
    char* environment[] = {colour, nullptr};
    EXPECT_EQ(RunFailure(script, {true, 40, environment}), test::kNoFailure);
    EXPECT_EQ(folder.Read("environment"), "green \n");
}

TEST(CommandRunner, SaysWhyAProgramCannotBeRun) {
    const test::TemporaryDirectory folder;
    const std::string missing = folder / "missing";
    const std::string plain = folder.Write("plain", "#!/bin/sh\n");
    const std::string shapeless = folder.WriteScript("shapeless", "");
    const std::string orphan = folder.WriteScript("orphan", "");
    folder.Write("orphan", "#!/no/such/interpreter\n");
    folder.Write("shapeless", "exit 0\n");
    EXPECT_EQ(RunFailure(missing + " start"), "failed to ForkExec '" + missing + " start' : No such file or directory");
    EXPECT_EQ(RunFailure(plain + " start"), "failed to ForkExec '" + plain + " start' : Permission denied");
    EXPECT_EQ(RunFailure(shapeless), "failed to ForkExec '" + shapeless + "' : Exec format error");
    EXPECT_EQ(RunFailure(orphan), "failed to ForkExec '" + orphan + "' : No such file or directory");
    EXPECT_EQ(RunFailure(""), "failed to ForkExec '' : No such file or directory");
}

TEST(CommandRunner, LeavesNoDescriptorOpen) {
    const test::TemporaryDirectory folder;
    const std::string succeeds = folder.WriteScript("succeeds", "exit 0");
    const std::string fails = folder.WriteScript("fails", "exit 1");
    const std::set<int> before = test::OpenDescriptors();
    RunFailure(succeeds);
    RunFailure(fails);
    RunFailure(folder / "missing");
    EXPECT_EQ(test::OpenDescriptors(), before);
}

TEST(CommandRunner, LeavesNoChildUncollected) {
    const test::TemporaryDirectory folder;
    RunFailure(folder.WriteScript("succeeds", "exit 0"));
    RunFailure(folder.WriteScript("fails", "exit 1"));
    RunFailure(folder / "missing");
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST(CommandRunner, KnowsNothingOfAChildThatCannotBeWaitedFor) {
    const test::TemporaryDirectory folder;
    const std::string script = folder.WriteScript("succeeds", "exit 0");
    const auto before = std::signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(RunFailure(script), "Execution of command: " + script + " failed <unknown_error>");
    std::signal(SIGCHLD, before);
}

TEST(CommandRunner, RunsTheChildAsTheRealUser) {
    const test::TemporaryDirectory folder;
    const std::string script = folder.WriteScript("says", "id -u > ${0%/*}/user");
    const uid_t effective = geteuid();
    if (getuid() == 0) {
        ASSERT_EQ(seteuid(65534), 0);
    }
    const std::string failure = RunFailure(script);
    ASSERT_EQ(seteuid(effective), 0);
    EXPECT_EQ(failure, test::kNoFailure);
    EXPECT_EQ(folder.Read("user"), std::to_string(getuid()) + "\n");
}

TEST(CommandRunner, RunsSeveralCommandsAtOnce) {
    const test::TemporaryDirectory folder;
    const std::string succeeds = folder.WriteScript("succeeds", "exit 0");
    const std::string fails = folder.WriteScript("fails", "exit 7");
    std::vector<std::string> failures(8);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < failures.size(); ++i) {
        threads.emplace_back([&, i] { failures[i] = RunFailure(i % 2 == 0 ? succeeds : fails); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (std::size_t i = 0; i < failures.size(); ++i) {
        EXPECT_EQ(failures[i],
                  i % 2 == 0 ? test::kNoFailure : "Execution of command: " + fails + " failed with status: 7");
    }
}

// Runs in a process of its own: takes all descriptor numbers but one.
[[noreturn]] void RunWithOneDescriptorLeft(const std::string& script) {
    // A sanitizer looks through a pipe at an object of a class that it meets for the first time. Here it meets them
    // all.
    Log_SetStderrLevel(kWarning);
    Log_Level(kWarning, "taking the descriptors\n");
    RunFailure(script);
    int last = 0;
    while (last < 40) {
        last = dup(STDERR_FILENO);
        fcntl(last, F_SETFD, FD_CLOEXEC);
    }
    const auto limit = static_cast<rlim_t>(last) + 2;
    const rlimit limits{limit, limit};
    setrlimit(RLIMIT_NOFILE, &limits);
    _exit(RunFailure(script) == test::kNoFailure ? 0 : 1);
}

TEST(CommandRunnerDeathTest, GivesTheChildTheRootDirectoryWhenThereIsNoNullDevice) {
    const test::TemporaryDirectory folder;
    const std::string script = folder.WriteScript(
        "looks", "seen=$(for what in 0 1 2; do readlink /proc/$$/fd/$what; done); echo \"$seen\" > ${0%/*}/seen");
    EXPECT_EXIT(RunWithOneDescriptorLeft(script), testing::ExitedWithCode(0),
                "warning [^:]+: opening /dev/null failed\n");
    EXPECT_EQ(folder.Read("seen"), "/\n/\n/\n");
}

TEST(CommandRunnerDeathTest, PanicsWhenTheRootDirectoryWouldBecomeStandardInput) {
    EXPECT_EXIT(
        {
            close(STDIN_FILENO);
            Log_SetStderrLevel(kError);
            RunFailure("/bin/true");
        },
        testing::KilledBySignal(SIGABRT), "VERIFY apps/lofter/hopper/DaemonPlugin:86\n");
}

}  // namespace
}  // namespace lofter
