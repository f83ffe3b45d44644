// Round trips through the command executor, each beside what it cannot do without: a connection with a message either
// way, and the creation of a process.
#include <array>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/Exception.h"
#include "executor/ControlSocket.h"
#include "executor/QorcliDispatcher.h"
#include "executor/QorcliExecutor.h"
#include "posix/ChildProcess.h"
#include "posix/Descriptor.h"
#include "support/TemporaryDirectory.h"

namespace lofter {
namespace {

constexpr char kProgram[] = "/bin/true";

// An executor that knows one more command, `true`.
class RunningExecutor {
  public:
    static QorcliExecutor& Client() {
        static RunningExecutor executor;
        return executor.client;
    }
    RunningExecutor(const RunningExecutor&) = delete;
    RunningExecutor& operator=(const RunningExecutor&) = delete;

  private:
    RunningExecutor() {
        std::filesystem::create_directory(directory / "commands");
        std::filesystem::create_symlink(kProgram, directory / "commands/true");
        QorcliDispatcher::Instance()->AddExternalDirectory(directory / "commands");
        client.Reset();
    }
    ~RunningExecutor() { client.Stop(); }

    test::TemporaryDirectory directory;
    QorcliExecutor client{directory / "socket", directory / "log"};
};

// A process that answers every message with four bytes and does nothing else. It waits for connections as the executor
// does, in an event loop and not in accept(): what is compared is the executor's work, not the kind of wait.
class BareServer {
  public:
    BareServer() : address(directory / "socket") {
        posix::Descriptor listening(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (::bind(listening.Get(), address.Get(), ControlSocketAddress::Length()) != 0 ||
            ::listen(listening.Get(), 16) != 0) {
            throw std::runtime_error("no socket in " + directory.Path().string());
        }
        process = ::fork();
        if (process == 0) {
            Serve(listening);
        }
    }
    ~BareServer() {
        ::kill(process, SIGKILL);
        int status = 0;
        posix::WaitForChild(process, status);
    }
    BareServer(const BareServer&) = delete;
    BareServer& operator=(const BareServer&) = delete;

    bool RoundTrip() const {
        const posix::Descriptor connection(::socket(AF_UNIX, SOCK_STREAM, 0));
        std::int32_t status = 0;
        return ::connect(connection.Get(), address.Get(), ControlSocketAddress::Length()) == 0 &&
               ::send(connection.Get(), "-", 1, 0) == 1 &&
               ::recv(connection.Get(), &status, sizeof status, 0) == sizeof status;
    }

  private:
    [[noreturn]] static void Serve(const posix::Descriptor& listening) {
        const posix::Descriptor loop(::epoll_create1(EPOLL_CLOEXEC));
        epoll_event pending{};
        pending.events = EPOLLIN;
        if (::epoll_ctl(loop.Get(), EPOLL_CTL_ADD, listening.Get(), &pending) != 0) {
            ::_exit(1);
        }
        while (::epoll_wait(loop.Get(), &pending, 1, -1) == 1) {
            const posix::Descriptor connection(::accept4(listening.Get(), nullptr, nullptr, SOCK_CLOEXEC));
            std::array<char, 1024> message;
            const std::int32_t status = 1;
            if (::recv(connection.Get(), message.data(), message.size(), 0) > 0 &&
                ::send(connection.Get(), &status, sizeof status, 0) != sizeof status) {
                ::_exit(1);
            }
        }
        ::_exit(1);
    }

    test::TemporaryDirectory directory;
    ControlSocketAddress address;
    pid_t process = -1;
};

void BareRoundTrip(benchmark::State& state) {
    const BareServer server;
    for (auto round : state) {
        if (!server.RoundTrip()) {
            state.SkipWithError("no answer");
            break;
        }
    }
}
BENCHMARK(BareRoundTrip)->UseRealTime();

void RejectedCommand(benchmark::State& state) {
    QorcliExecutor& executor = RunningExecutor::Client();
    for (auto round : state) {
        try {
            executor.SendCommand("true -");
            state.SkipWithError("not rejected");
        } catch (const Exception&) {
            continue;
        }
    }
}
BENCHMARK(RejectedCommand)->UseRealTime();

void BareSpawn(benchmark::State& state) {
    std::string word = kProgram;
    std::array<char*, 2> arguments{word.data(), nullptr};
    for (auto round : state) {
        pid_t child = 0;
        int status = -1;
        if (::posix_spawn(&child, kProgram, nullptr, nullptr, arguments.data(), environ) != 0 ||
            !posix::WaitForChild(child, status) || status != 0) {
            state.SkipWithError("it failed");
            break;
        }
    }
}
BENCHMARK(BareSpawn)->UseRealTime();

void CommandThatRunsAProgram(benchmark::State& state) {
    QorcliExecutor& executor = RunningExecutor::Client();
    for (auto round : state) {
        executor.SendCommand("true");
    }
}
BENCHMARK(CommandThatRunsAProgram)->UseRealTime();

}  // namespace
}  // namespace lofter
