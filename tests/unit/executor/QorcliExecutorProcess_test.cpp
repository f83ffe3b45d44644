#include "executor/QorcliExecutorProcess.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "base/Logging.h"
#include "poll/poll.h"
#include "support/ChildOutcome.h"
#include "support/FailureOf.h"
#include "support/Faults.h"
#include "support/LogCapture.h"
#include "support/OpenDescriptors.h"
#include "support/SocketEnds.h"
#include "support/SyscallFilter.h"
#include "support/TemporaryDirectory.h"

namespace lofter {
namespace {

using Lines = std::vector<std::string>;
using test::FailureOf;
using test::LogCapture;
using test::OpenDescriptors;

class CommandExecutorProcess : public testing::Test {
  protected:
    void SetUp() override { ::signal(SIGPIPE, SIG_IGN); }  // as its parent does

    test::TemporaryDirectory directory;
    std::string socketPath = directory / "socket";
    QorcliExecutorProcess process{socketPath, directory / "log"};
};

// As it is at its first moment: what comes behind its creation fails.
TEST_F(CommandExecutorProcess, HasASocketThatIsItsOwnersAloneFromTheBeginning) {
    for (const mode_t mask : {0U, 0022U, 0777U}) {
        std::filesystem::remove(socketPath);
        EXPECT_EQ(test::InForkedChild([&] {
                      ::umask(mask);
                      test::FilterSyscalls({{.number = SYS_listen, .error = EPERM}});
                      return FailureOf([&] { process.SetupSocket(); });
                  }),
                  "Failed to listen on executor control socket: Operation not permitted");
        EXPECT_EQ(std::filesystem::status(socketPath).permissions(), std::filesystem::perms(0600)) << mask;
    }
}

TEST_F(CommandExecutorProcess, LeavesTheUmaskAsItWas) {
    EXPECT_EQ(test::InForkedChild([&] {
                  ::umask(0027);
                  process.SetupSocket();
                  const bool isUnchanged = ::umask(0) == 0027;
                  QorcliExecutorProcess late(socketPath, directory / "log");
                  ::umask(0027);
                  EXPECT_NE(FailureOf([&] { late.SetupSocket(); }), "");
                  return isUnchanged && ::umask(0) == 0027 ? "unchanged" : "changed";
              }),
              "unchanged");
}

TEST_F(CommandExecutorProcess, DoesNotStartWithoutASocket) {
    EXPECT_EQ(test::InForkedChild([&] {
                  test::FilterSyscalls({{.number = SYS_socket, .error = EMFILE}});
                  return FailureOf([&] { process.SetupSocket(); });
              }),
              "Error opening control socket for executor: Too many open files");
}

TEST_F(CommandExecutorProcess, DoesNotStartWhenItCannotListen) {
    EXPECT_EQ(test::InForkedChild([&] {
                  test::FilterSyscalls({{.number = SYS_listen, .error = EADDRINUSE}});
                  const std::set<int> before = OpenDescriptors();
                  const std::string failure = FailureOf([&] { process.SetupSocket(); });
                  return failure + (OpenDescriptors() == before ? "" : ", and left a descriptor");
              }),
              "Failed to listen on executor control socket: Address already in use");
}

TEST_F(CommandExecutorProcess, DoesNotStartWithoutAThreadForItsEventLoop) {
    const test::FailingCall noThread(test::Call::PthreadCreate, 0);
    EXPECT_EQ(FailureOf([&] { process.StartEventLoop(); }), "Failed creating Executor Event Loop thread");
}

TEST_F(CommandExecutorProcess, SaysThatItsSocketCannotBeWatched) {
    EXPECT_EQ(test::InForkedChild([&] {
                  process.SetupSocket();
                  Poll_InitDefault();
                  test::FilterSyscalls({{.number = SYS_epoll_ctl, .error = ENOSPC}});
                  const LogCapture log;
                  process.ServeUntilStopped();  // not for long
                  return log.Lines(kError).at(0);
              }),
              "Failed setting up Poll Loop for executor");
}

// What the executor process does with one connection, seen from this process.
class ExecutorConnection : public CommandExecutorProcess {
  protected:
    // Nothing when the connection ends without a status.
    std::optional<std::int32_t> StatusOf(const std::string& message) {
        posix::Descriptor client = test::ConnectTo(socketPath);
        EXPECT_EQ(::send(client.Get(), message.data(), message.size(), 0), static_cast<ssize_t>(message.size()));
        ::shutdown(client.Get(), SHUT_WR);
        int number = listening.Get();
        QorcliExecutorProcess::HandleConnection(&number);
        std::int32_t status = -1;
        if (::recv(client.Get(), &status, sizeof status, 0) != sizeof status) {
            return std::nullopt;
        }
        return status;
    }
    // What came of the name of the command that was executed.
    std::string ExecutedOf(const std::string& message) {
        const LogCapture log;
        EXPECT_EQ(StatusOf(message), 1);
        const std::string line = log.Lines(kError).back();
        const std::string head = "execution of '";
        return line.substr(head.size(), line.find("' failed : ") - head.size());
    }

    const posix::Descriptor listening = test::ListenAt(socketPath);
};

TEST_F(ExecutorConnection, IsAnsweredWithZeroWhenThereIsNothingToRun) {
    EXPECT_EQ(StatusOf("--help"), 0);
}

TEST_F(ExecutorConnection, IsAnsweredWithOneAndALinePerErrorWhenTheCommandCannotBeParsed) {
    const LogCapture log;
    EXPECT_EQ(StatusOf("a --x b -y"), 1);
    EXPECT_EQ(log.Lines(kError),
              Lines({"Executor was unable to parse command: word after the first option: b",
                     "Executor was unable to parse command: not of the form --name or --name=value: -y"}));
}

TEST_F(ExecutorConnection, WithoutAMessageIsAnEmptyCommand) {
    const LogCapture log;
    EXPECT_EQ(StatusOf(""), 1);
    EXPECT_EQ(log.Lines(kError), Lines({"Executor was unable to parse command: empty command"}));
}

TEST_F(ExecutorConnection, IsAnsweredWithOneWhenTheCommandFails) {
    const LogCapture log;
    EXPECT_EQ(StatusOf("no such --x=1"), 1);
    EXPECT_EQ(log.Lines(kError).back(), "execution of 'no such --x=1' failed : unknown command: no such");
}

TEST_F(ExecutorConnection, CarriesACommandOf1023Bytes) {
    const std::string command(1023, 'c');
    EXPECT_EQ(ExecutedOf(command), command);
}

TEST_F(ExecutorConnection, CutsLongerCommandsAfter1023Bytes) {
    EXPECT_EQ(ExecutedOf(std::string(1024, 'c')), std::string(1023, 'c'));
    EXPECT_EQ(ExecutedOf(std::string(2000, 'c')), std::string(1023, 'c'));
}

TEST_F(ExecutorConnection, EndsTheCommandAtANulByte) {
    EXPECT_EQ(ExecutedOf(std::string("one\0two", 7)), "one");
}

TEST_F(ExecutorConnection, NeverTakesTheCommandForAFormat) {
    EXPECT_EQ(ExecutedOf("%s%n%s"), "%s%n%s");
}

TEST_F(ExecutorConnection, ThatEndedBeforeItsStatusWasSentIsLogged) {
    {
        const posix::Descriptor client = test::ConnectTo(socketPath);
        ASSERT_EQ(::send(client.Get(), "--help", 6, 0), 6);
    }
    const LogCapture log;
    int number = listening.Get();
    QorcliExecutorProcess::HandleConnection(&number);
    EXPECT_EQ(log.Lines(kWarning), Lines({"Sending command status to lofter failed"}));
}

TEST_F(ExecutorConnection, ThatCannotBeAcceptedIsLogged) {
    const LogCapture log;
    const posix::Descriptor deaf(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    int number = deaf.Get();
    QorcliExecutorProcess::HandleConnection(&number);
    EXPECT_EQ(log.Lines(kWarning), Lines({"Error accepting connection on contol socket - Invalid argument\n"}));
}

TEST_F(ExecutorConnection, ThatCannotBeAcceptedIsNotTriedAgainAtOnce) {
    const posix::Descriptor deaf(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    int number = deaf.Get();
    const auto start = std::chrono::steady_clock::now();
    for (int attempt = 0; attempt < 4; ++attempt) {
        QorcliExecutorProcess::HandleConnection(&number);
    }
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(10 + 20 + 40 + 80));
}

TEST_F(ExecutorConnection, ThatFindsEveryDescriptorUsedIsServedThroughTheOneInReserve) {
    const std::string story = test::InForkedChild([&] {
        const LogCapture log;
        std::string told = std::to_string(StatusOf("--help").value_or(-1));  // from here on there is a reserve
        // A sanitizer looks at a type through a pipe when it meets it first.
        Log_Level(kInfo, "ready\n");
        const posix::Descriptor client = test::ConnectTo(socketPath);
        ::send(client.Get(), "--help", 6, 0);
        const auto usable = static_cast<rlim_t>(posix::Descriptor(::dup(client.Get())).Get());
        rlimit before{};
        ::getrlimit(RLIMIT_NOFILE, &before);
        const rlimit none{usable, before.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &none);
        for (int attempt = 0; attempt < 2; ++attempt) {
            int number = listening.Get();
            QorcliExecutorProcess::HandleConnection(&number);
        }
        ::setrlimit(RLIMIT_NOFILE, &before);
        std::int32_t status = -1;
        const bool answered = ::recv(client.Get(), &status, sizeof status, MSG_DONTWAIT) == sizeof status;
        told += answered ? " " + std::to_string(status) : " nothing";
        for (const std::string& line : log.Lines()) {
            told += "; " + line;
        }
        return told;
    });
    EXPECT_EQ(story, "0 0; ready; Error accepting connection on contol socket - Too many open files\n");
}

TEST_F(ExecutorConnection, ThatCannotBeReadIsLogged) {
    // Only a network connection can be broken between connecting and reading.
    const posix::Descriptor server(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const posix::Descriptor client(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    ASSERT_EQ(::bind(server.Get(), generic, length), 0);
    ASSERT_EQ(::listen(server.Get(), 1), 0);
    ASSERT_EQ(::getsockname(server.Get(), generic, &length), 0);
    {
        const posix::Descriptor aborted(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        ASSERT_EQ(::connect(aborted.Get(), generic, length), 0);
        const linger abortive{1, 0};
        ASSERT_EQ(::setsockopt(aborted.Get(), SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive), 0);
    }
    const LogCapture log;
    int number = server.Get();
    QorcliExecutorProcess::HandleConnection(&number);
    EXPECT_EQ(log.Lines(kWarning), Lines({"Failed to read message from socket - Connection reset by peer\n"}));
}

TEST_F(ExecutorConnection, LeavesNoDescriptorBehind) {
    StatusOf("--help");
    const std::set<int> before = OpenDescriptors();
    StatusOf("--help");
    StatusOf("a -b");
    EXPECT_EQ(OpenDescriptors(), before);
}

}  // namespace
}  // namespace lofter
