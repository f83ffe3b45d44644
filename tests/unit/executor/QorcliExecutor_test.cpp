#include "executor/QorcliExecutor.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/Exception.h"
#include "base/GraphLock.h"
#include "base/Logging.h"
#include "executor/QorcliExecutorProcess.h"
#include "support/ChildOutcome.h"
#include "support/FailureOf.h"
#include "support/LogCapture.h"
#include "support/OpenDescriptors.h"
#include "support/SocketEnds.h"
#include "support/SyscallFilter.h"
#include "support/TemporaryDirectory.h"
#include "support/WaitUntil.h"

namespace lofter {
namespace {

using Lines = std::vector<std::string>;
using test::FailureOf;
using test::LogCapture;
using test::OpenDescriptors;

// Attributes of threads whose stacks are too small for a forked child to use them again: the thread sanitizer would
// take the child's new thread for the parent's.
class SmallStack {
  public:
    SmallStack() {
        ::pthread_attr_init(&attributes);
        ::pthread_attr_setstacksize(&attributes, 1U << 20U);
    }
    ~SmallStack() { ::pthread_attr_destroy(&attributes); }
    SmallStack(const SmallStack&) = delete;
    SmallStack& operator=(const SmallStack&) = delete;
    const pthread_attr_t* Get() const { return &attributes; }

  private:
    pthread_attr_t attributes{};
};

// The address sanitizer's own allocator is not fork-safe, unlike the C library's: what another thread holds of it at
// the fork stays held in the child for ever. Under it the threads only log, which allocates nothing outside the lock of
// logging; and because its memory makes a fork several times as long, there are fewer of them.
#ifdef __SANITIZE_ADDRESS__
constexpr bool kAllocatorIsForkSafe = false;
constexpr int kForks = 20;
#else
constexpr bool kAllocatorIsForkSafe = true;
constexpr int kForks = 30;
#endif

// Threads that keep the locks of logging and allocation busy while they live.
class BusyThreads {
  public:
    explicit BusyThreads(std::size_t count) : threads(count) {
        for (pthread_t& thread : threads) {
            EXPECT_EQ(::pthread_create(&thread, SmallStack().Get(), LogAndAllocate, this), 0);
        }
        // A thread allocates while it starts, whatever it does later.
        EXPECT_TRUE(test::WaitUntil([this] { return running == threads.size(); }));
    }
    ~BusyThreads() {
        enough = true;
        for (const pthread_t thread : threads) {
            ::pthread_join(thread, nullptr);
        }
    }
    BusyThreads(const BusyThreads&) = delete;
    BusyThreads& operator=(const BusyThreads&) = delete;
    std::size_t Rounds() const { return rounds; }

  private:
    static void* LogAndAllocate(void* argument) {
        auto& self = *static_cast<BusyThreads*>(argument);
        for (std::size_t round = 0; !self.enough; ++round) {
            std::vector<std::string> memory;
            if (kAllocatorIsForkSafe) {
                memory.assign(1 + round % 64, std::string(round % 1024, 'x'));
            }
            Log_Level(kInfo, "round %zu has %zu strings\n", round, memory.size());
            self.running += round == 0 ? 1 : 0;
            ++self.rounds;
            std::this_thread::yield();
        }
        return nullptr;
    }

    std::atomic<bool> enough = false;
    std::atomic<std::size_t> running = 0;
    std::atomic<std::size_t> rounds = 0;
    std::vector<pthread_t> threads;
};

// Executors that a test starts are adopted by the test and must all end well.
class CommandExecutor : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_NE(QorcliExecutor::Instance(), nullptr);  // ignores SIGPIPE
        ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    }
    void TearDown() override {
        executor.Stop();
        EXPECT_EQ(ReapAll(), 0);
        ::prctl(PR_SET_CHILD_SUBREAPER, 0);
    }
    // Waits for every child; returns how many ended in any other way than with status 0.
    static int ReapAll() {
        int failed = 0;
        int status = 0;
        while (::waitpid(-1, &status, 0) > 0) {
            failed += status == 0 ? 0 : 1;
        }
        return failed;
    }
    std::string Send(const std::string& command) {
        return FailureOf([&] { executor.SendCommand(command); });
    }
    posix::Descriptor Listen() const { return test::ListenAt(socketPath); }

    test::TemporaryDirectory directory;
    std::string socketPath = directory / "socket";
    QorcliExecutor executor{socketPath, directory / "log"};
};

TEST_F(CommandExecutor, IsStartedByTheFirstCommandThatFindsNone) {
    const LogCapture log;
    EXPECT_EQ(Send("--help"), "");
    EXPECT_EQ(log.Lines(), Lines({"Failed connecting to executor No such file or directory",
                                  "Setting up Executor - Reset Requested"}));
}

TEST_F(CommandExecutor, PrintsOnItsLogFile) {
    EXPECT_EQ(Send("--help"), "");
    EXPECT_NE(directory.Read("log").find("usage: "), std::string::npos);
    EXPECT_EQ(std::filesystem::status(directory / "log").permissions() & std::filesystem::perms::all,
              std::filesystem::perms(0644));
}

TEST_F(CommandExecutor, IsListeningWhenTheResetReturns) {
    executor.Reset();
    const posix::Descriptor connection(executor.Connect(true));
    EXPECT_GT(connection.Get(), 0);
}

TEST_F(CommandExecutor, IsNotStartedTwice) {
    executor.Reset();
    const LogCapture log;
    executor.Reset();
    EXPECT_EQ(log.Lines(), Lines());
}

// As when another thread has started one since: its reset ends with the release of the graph lock.
TEST_F(CommandExecutor, IsNotStartedByAThreadThatFoundNoneBeforeItsTurn) {
    const LogCapture log;
    std::optional<GraphLock> turn(std::in_place);
    std::thread late([this] { EXPECT_EQ(Send("--help"), ""); });
    EXPECT_TRUE(test::WaitUntil([&log] { return !log.Lines(kError).empty(); }));
    posix::Descriptor listening = Listen();
    turn.reset();
    int number = listening.Get();
    QorcliExecutorProcess::HandleConnection(&number);  // the look whether somebody answers
    QorcliExecutorProcess::HandleConnection(&number);
    late.join();
    EXPECT_EQ(log.Lines(kInfo), Lines());
    listening.Reset();
}

TEST_F(CommandExecutor, FailsACommandAtOnceWithoutAnotherAttempt) {
    executor.Reset();
    const LogCapture log;
    EXPECT_EQ(Send("no such command"), "Executor failed executing qorcli command: no such command");
    EXPECT_EQ(log.Lines(), Lines());
}

TEST_F(CommandExecutor, TakesAnEmptyCommandForOneThatFails) {
    EXPECT_EQ(Send(""), "Executor failed executing qorcli command: ");
}

TEST_F(CommandExecutor, IsGivenUpAfterTenAttempts) {
    QorcliExecutor homeless(directory / "missing/socket", directory / "log");
    const LogCapture log;
    EXPECT_EQ(FailureOf([&] { homeless.SendCommand("--help"); }),
              "Could not connect to Executor:No such file or directory");
    Lines expected;
    for (int attempt = 0; attempt < 10; ++attempt) {
        expected.insert(expected.end(), {"Failed connecting to executor No such file or directory",
                                         "Setting up Executor - Reset Requested",
                                         "Resetting Executor failed, retrying: Lofter executor failed to start"});
    }
    EXPECT_EQ(log.Lines(), expected);
    EXPECT_EQ(log.Lines(kInfo).size(), 10U);
    EXPECT_EQ(log.Lines(kError).size(), 20U);
}

TEST_F(CommandExecutor, DoesNotStartOnAStaleSocketFile) {
    { const posix::Descriptor stale = Listen(); }
    EXPECT_EQ(FailureOf([&] { executor.Reset(); }), "Lofter executor failed to start");
    EXPECT_EQ(FailureOf([&] { QorcliExecutorProcess(socketPath, directory / "log").SetupSocket(); }),
              "Failed to bind to executor control socket: Address already in use");
    EXPECT_EQ(Send("--help"), "Could not connect to Executor:Connection refused");
}

TEST_F(CommandExecutor, SaysThatTheFirstForkedProcessCouldNotBeCollected) {
    const auto before = ::signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(FailureOf([&] { executor.Reset(); }), "Failed collecting executor's exit status");
    ::signal(SIGCHLD, before);
}

TEST_F(CommandExecutor, FailsACommandWhoseExecutorGoesAway) {
    posix::Descriptor listening = Listen();
    std::thread dying([&listening] {
        const posix::Descriptor connection(::accept(listening.Get(), nullptr, nullptr));
        std::array<char, 16> command{};
        EXPECT_EQ(::recv(connection.Get(), command.data(), command.size(), 0), 3);
    });
    EXPECT_EQ(Send("run"), "Failed to recieve command status from Executor: Connection reset by peer");
    dying.join();
    listening.Reset();
}

TEST_F(CommandExecutor, FailsACommandThatItsExecutorRefusesToRead) {
    posix::Descriptor listening = Listen();
    std::thread deaf([&listening] { const posix::Descriptor unread(::accept(listening.Get(), nullptr, nullptr)); });
    // More than fits into the socket. Whether some of it went out before the end is up to the scheduler.
    const std::string failure = Send(std::string(8U << 20U, 'x'));
    EXPECT_TRUE(failure == "Failed sending command to executor: Broken pipe" ||
                failure == "Failed to recieve command status from Executor: Connection reset by peer")
        << failure;
    deaf.join();
    listening.Reset();
}

TEST_F(CommandExecutor, IsReportedGoneWhenItIsToStopAndDoesNotRun) {
    const LogCapture log;
    executor.Stop();
    EXPECT_EQ(log.Lines(kInfo), Lines({"Executor already gone."}));
}

TEST_F(CommandExecutor, StopsWithoutAReply) {
    executor.Reset();
    const LogCapture log;
    executor.Stop();
    EXPECT_EQ(log.Lines(kInfo), Lines({"Executor has been Successfully Stopped"}));
    EXPECT_EQ(ReapAll(), 0);
    EXPECT_EQ(executor.Connect(false), -1);
    EXPECT_TRUE(std::filesystem::exists(socketPath));
}

TEST_F(CommandExecutor, IsLeftWithoutAWordWhenItAnswersStop) {
    posix::Descriptor listening = Listen();
    std::thread talking([&listening] {
        const posix::Descriptor connection(::accept(listening.Get(), nullptr, nullptr));
        std::array<char, 16> word{};
        EXPECT_EQ(::recv(connection.Get(), word.data(), word.size(), 0), 4);
        EXPECT_STREQ(word.data(), "stop");
        EXPECT_EQ(::send(connection.Get(), "no", 2, 0), 2);
    });
    const LogCapture log;
    executor.Stop();
    EXPECT_EQ(log.Lines(), Lines());
    talking.join();
    listening.Reset();
}

TEST_F(CommandExecutor, StopsForAnyTextThatBeginsWithTheWord) {
    for (const std::string word : {"stop", "STOP", "Stop", "stopwatch --now"}) {
        std::filesystem::remove(socketPath);
        executor.Reset();
        EXPECT_EQ(Send(word), "Failed to recieve command status from Executor: Connection reset by peer") << word;
        EXPECT_EQ(ReapAll(), 0) << word;
        EXPECT_EQ(executor.Connect(false), -1) << word;
    }
}

TEST_F(CommandExecutor, KeepsServingWhenAClientSaysNothingAndGoes) {
    executor.Reset();
    { const posix::Descriptor silent(executor.Connect(true)); }
    EXPECT_EQ(Send("--help"), "");
}

TEST_F(CommandExecutor, ServesTheNextClientAfterTheOneBeforeIt) {
    executor.Reset();
    posix::Descriptor silent(executor.Connect(true));
    std::atomic<bool> answered = false;
    std::thread next([&] {
        EXPECT_EQ(Send("--help"), "");
        answered = true;
    });
    EXPECT_FALSE(answered);
    silent.Reset();
    next.join();
    EXPECT_TRUE(answered);
}

TEST_F(CommandExecutor, RunsInASessionOfItsOwnInTheRootDirectory) {
    EXPECT_EQ(Send("--help"), "");
    // The only child: the process that was forked first has ended.
    const std::string children = "/proc/self/task/" + std::to_string(::gettid()) + "/children";
    std::ifstream stream(children);
    pid_t child = 0;
    ASSERT_TRUE(stream >> child);
    EXPECT_EQ(::getsid(child), child);
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(child) + "/cwd"), "/");
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(child) + "/fd/0"), "/dev/null");
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(child) + "/fd/1"), directory / "log");
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(child) + "/fd/2"), directory / "log");
}

TEST_F(CommandExecutor, InheritsNoConnectionOfItsParent) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe(ends.data()), 0);
    posix::Descriptor readEnd(ends[0]);
    posix::Descriptor writeEnd(ends[1]);
    executor.Reset();
    writeEnd.Reset();
    char nothing = 0;
    EXPECT_EQ(::read(readEnd.Get(), &nothing, 1), 0);
}

TEST_F(CommandExecutor, LeavesNoDescriptorBehindInItsClient) {
    executor.Reset();
    const std::set<int> before = OpenDescriptors();
    Send("--help");
    Send("unknown");
    Send("");
    executor.Reset();
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(CommandExecutor, CanBeForkedAgainAndAgainWhileThreadsLogAndAllocate) {
    ::alarm(280);  // a child that hangs ends the test
    LogCapture log;
    int failures = 0;
    {
        const BusyThreads threads(16);
        for (int fork = 0; fork < kForks; ++fork) {
            const std::size_t before = threads.Rounds();
            EXPECT_TRUE(test::WaitUntil([&] { return threads.Rounds() > before; })) << "nobody logs";
            failures += FailureOf([&] { executor.Reset(); }).empty() ? 0 : 1;
            executor.Stop();
            std::filesystem::remove(socketPath);
            log.Clear();
        }
    }
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(ReapAll(), 0);
    ::alarm(0);
}

TEST_F(CommandExecutor, IsNotStartedWhenNoProcessCanBeForked) {
    EXPECT_EQ(test::InForkedChild([&] {
                  test::FilterSyscalls({{.number = SYS_clone, .error = EAGAIN}});
                  const LogCapture log;
                  const std::string failure = FailureOf([&] { executor.Reset(); });
                  const std::string sent = Send("--help");
                  return sent + "|" + failure + "|" + log.Lines(kError).back();
              }),
              "Could not connect to Executor:No such file or directory|Failed to forkResource temporarily unavailable|"
              "Resetting Executor failed, retrying: Failed to forkResource temporarily unavailable");
}

TEST_F(CommandExecutor, IsNotReachedByAClientThatGetsNoSocket) {
    EXPECT_EQ(test::InForkedChild([&] {
                  test::FilterSyscalls({{.number = SYS_socket, .error = EMFILE}});
                  const LogCapture log;
                  const int connection = executor.Connect(false);
                  return std::to_string(connection) + "|" + log.Lines(kError).front();
              }),
              "-1|Failed creating lofter client socket Too many open files");
}

TEST_F(CommandExecutor, EndsWhenItCannotHaveASessionOfItsOwn) {
    EXPECT_EQ(test::InForkedChild([&] {
                  InitializeLogging("lofter");
                  ::prctl(PR_SET_CHILD_SUBREAPER, 1);
                  test::FilterSyscalls({{.number = SYS_setsid, .error = EPERM}});
                  const std::string failure = FailureOf([&] { executor.Reset(); });
                  int status = 0;
                  const bool ended = ::waitpid(-1, &status, 0) > 0;
                  return failure + (ended ? "ended with status " + std::to_string(WEXITSTATUS(status)) : "lives");
              }),
              "ended with status 255");
    const std::string log = directory.Read("log");
    EXPECT_TRUE(log.ends_with(" error lofter: Unable to start executor: Failed to daemonize\n")) << log;
}

TEST_F(CommandExecutor, IsNotHeardOfWhenNothingCanBeSent) {
    executor.Reset();
    EXPECT_EQ(test::InForkedChild([&] {
                  test::FilterSyscalls({{.number = SYS_sendto, .error = ENOBUFS}});
                  return Send("--help") + "|" + FailureOf([&] { executor.Stop(); });
              }),
              "Failed sending command to executor: No buffer space available|"
              "Failed sending STOP to executorNo buffer space available");
}

}  // namespace
}  // namespace lofter
