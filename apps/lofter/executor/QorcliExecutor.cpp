#include "executor/QorcliExecutor.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>
#include <utility>

#include <sys/socket.h>
#include <unistd.h>

#include "base/Exception.h"
#include "base/GraphLock.h"
#include "base/Logging.h"
#include "base/Paths.h"
#include "executor/ControlSocket.h"
#include "executor/QorcliExecutorProcess.h"
#include "posix/AcrossSignals.h"
#include "posix/ChildProcess.h"
#include "posix/Descriptor.h"
#include "posix/Reason.h"

namespace lofter {

namespace {

constexpr int kAttempts = 10;

// What came of one message to the executor.
struct Answer {
    const char* failure = nullptr;  // why there is no status; the reason is in errno
    std::int32_t status = 0;
};

Answer Exchange(const posix::Descriptor connection, const std::string& command) {
    const std::size_t length = std::strlen(command.c_str());
    if (posix::AcrossSignals([&] { return ::send(connection.Get(), command.c_str(), length, 0); }) == -1) {
        return {"Failed sending command to executor"};
    }
    if (length == 0) {
        // Nothing was sent, and the executor would wait for it. The end of input tells it that the command is empty.
        ::shutdown(connection.Get(), SHUT_WR);
    }
    Answer answer;
    const ssize_t received =
        posix::AcrossSignals([&] { return ::recv(connection.Get(), &answer.status, sizeof answer.status, 0); });
    if (received == 0) {
        errno = ECONNRESET;  // the end of input leaves no reason behind, although the reason is clear
    }
    if (received <= 0) {
        answer.failure = "Failed to recieve command status from Executor";
    }
    return answer;
}

std::shared_ptr<QorcliExecutor> CreateInstance() {
    if (std::signal(SIGPIPE, SIG_IGN) == SIG_ERR) {
        Log_Level(kWarning, "Lofter cannot ignore SIGPIPE\n");
    }
    return std::make_shared<QorcliExecutor>(paths::kControlSocket, paths::kExecutorLog);
}

}  // namespace

QorcliExecutor* QorcliExecutor::Instance() {
    // Never destroyed: workers may still hold it when the process ends.
    static const auto* const instance = new std::shared_ptr<QorcliExecutor>(CreateInstance());
    return instance->get();
}

QorcliExecutor::QorcliExecutor(std::string controlSocketPath, std::string outputLogPath)
    : controlSocket(std::move(controlSocketPath)), outputLog(std::move(outputLogPath)) {}

QorcliExecutor::~QorcliExecutor() = default;

int QorcliExecutor::Connect(bool verbose) const {
    const ControlSocketAddress address(controlSocket);
    posix::Descriptor connection(::socket(AF_UNIX, SOCK_STREAM, 0));
    if (!connection) {
        Log_Level(kError, "Failed creating lofter client socket %s\n", std::strerror(errno));
        return -1;
    }
    if (posix::AcrossSignals(
            [&] { return ::connect(connection.Get(), address.Get(), ControlSocketAddress::Length()); }) != 0) {
        if (verbose) {
            Log_Level(kError, "Failed connecting to executor %s\n", std::strerror(errno));
        }
        return -1;
    }
    return connection.Release();
}

void QorcliExecutor::Reset() const {
    // A connection that gets descriptor 0 counts as none and stays open, here and below: it has become standard input.
    const int probe = Connect(false);
    if (probe > 0) {
        const posix::Descriptor alive(probe);
        return;
    }
    Log_Level(kInfo, "Setting up Executor - Reset Requested\n");
    QorcliExecutorProcess executor(controlSocket, outputLog);
    const pid_t child = ::fork();
    if (child == -1) {
        // Without a separator, here and below: operators match on these texts.
        throw Exception(std::string("Failed to fork") + std::strerror(errno));
    }
    if (child == 0) {
        executor.Run();
    }
    int status = 0;
    if (!posix::WaitForChild(child, status)) {
        throw Exception("Failed collecting executor's exit status");
    }
    if (status != 0) {
        throw Exception("Lofter executor failed to start");
    }
}

void QorcliExecutor::SendCommand(const std::string& command) const {
    int reason = 0;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        const int connection = Connect(true);
        if (connection > 0) {
            const Answer answer = Exchange(posix::Descriptor(connection), command);
            // Thrown here, where nothing is left to clean up: a failing command costs half as much to report.
            if (answer.failure != nullptr) {
                throw Exception(posix::WithReason(answer.failure));
            }
            if (answer.status != 0) {
                throw Exception("Executor failed executing qorcli command: " + command);
            }
            return;
        }
        reason = errno;
        ResetLocked();
    }
    throw Exception(std::string("Could not connect to Executor:") + std::strerror(reason));
}

// Two threads that both find the executor gone must not fork two: the second finds the first one's answering.
void QorcliExecutor::ResetLocked() const {
    const GraphLock lock;
    try {
        Reset();
    } catch (const std::exception& e) {
        Log_Level(kError, "Resetting Executor failed, retrying: %s\n", e.what());
    } catch (...) {
        Log_Level(kError, "Resetting Executor failed, retrying\n");
    }
}

void QorcliExecutor::Stop() const {
    posix::Descriptor connection(Connect(false));
    if (!connection) {
        Log_Level(kInfo, "Executor already gone.\n");
        return;
    }
    if (posix::AcrossSignals([&] { return ::send(connection.Get(), "stop", 4, 0); }) == -1) {
        throw Exception(std::string("Failed sending STOP to executor") + std::strerror(errno));
    }
    std::array<char, 4> reply{};
    const ssize_t received =
        posix::AcrossSignals([&] { return ::recv(connection.Get(), reply.data(), reply.size(), 0); });
    if (received <= 0) {
        Log_Level(kInfo, "Executor has been Successfully Stopped\n");
    }
    // Left to the end of the process, which comes next.
    static_cast<void>(connection.Release());
}

}  // namespace lofter
