#include "executor/QorcliExecutorProcess.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <exception>
#include <utility>

#include <strings.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/Exception.h"
#include "base/Logging.h"
#include "executor/AcceptRelief.h"
#include "executor/CommandLineRun.h"
#include "executor/ControlSocket.h"
#include "poll/poll.h"
#include "posix/AcrossSignals.h"
#include "posix/ChildProcess.h"
#include "posix/Reason.h"

namespace lofter {

namespace {

constexpr int kBacklog = 16;
constexpr std::size_t kLongestCommand = 1023;
constexpr char kStopWord[] = "stop";

// The listening socket's callback stays registered and fires whenever a connection is pending.
constexpr int kPendingConnection = kPollPeriodic | kPollRead | kPollSocket;

// Ends the event loop. Touched by the event-loop thread only.
bool exitFlag = false;

// Touched by the event-loop thread only, once there is one.
AcceptRelief relief;

// Any text that merely begins with the word counts; kept on purpose.
bool IsStop(const char* command) {
    return ::strncasecmp(command, kStopWord, std::strlen(kStopWord)) == 0;
}

// While it lives, what is made is made for its owner alone. The umask is the whole process's.
class OwnersUmask {
  public:
    OwnersUmask() : before(::umask(S_IXUSR | S_IRWXG | S_IRWXO)) {}
    ~OwnersUmask() { ::umask(before); }
    OwnersUmask(const OwnersUmask&) = delete;
    OwnersUmask& operator=(const OwnersUmask&) = delete;

  private:
    const mode_t before;
};

// Whoever may write to the socket may run host commands: at no moment is it anybody else's.
int BindForOwner(const posix::Descriptor& unbound, const ControlSocketAddress& address) {
    const OwnersUmask umask;
    return ::bind(unbound.Get(), address.Get(), ControlSocketAddress::Length());
}

// The text itself may be what memory does not suffice for.
std::int32_t StatusOf(const char* command) {
    try {
        return RunCommandLine(command);
    } catch (const std::exception& e) {
        Log_Level(kError, "execution of '%s' failed : %s\n", command, e.what());
        return 1;
    }
}

void Serve(const posix::Descriptor connection, void* listenSocketPointer) {
    std::array<char, kLongestCommand + 1> command{};
    if (posix::AcrossSignals([&] { return ::recv(connection.Get(), command.data(), kLongestCommand, 0); }) == -1) {
        Log_Level(kWarning, "Failed to read message from socket - %s\n\n", std::strerror(errno));
        return;
    }
    if (IsStop(command.data())) {
        Log_Level(kInfo, "Lofter executor signalled to stop\n");
        exitFlag = true;
        Poll_NotifyChange(kPollMainClassSet);
        Poll_CallbackRemove(kPollMainClassSet, kPendingConnection, QorcliExecutorProcess::HandleConnection,
                            listenSocketPointer, kPollDevice);
        return;
    }
    const std::int32_t status = StatusOf(command.data());
    if (posix::AcrossSignals([&] { return ::send(connection.Get(), &status, sizeof status, 0); }) == -1) {
        Log_Level(kWarning, "Sending command status to lofter failed\n");
    }
}

// Nothing may be thrown out of a thread: short of memory, the executor ends as it does without a poll loop.
bool SetUpPollLoop(int& listening) {
    try {
        Poll_InitDefault();
        return Poll_Callback(kPollMainClassSet, kPendingConnection, QorcliExecutorProcess::HandleConnection, &listening,
                             kPollDevice, listening, nullptr) == 0;
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace

QorcliExecutorProcess::QorcliExecutorProcess(std::string controlSocketPath, std::string outputLogPath)
    : controlSocket(std::move(controlSocketPath)), outputLog(std::move(outputLogPath)) {}

// The child of a process whose other threads log, allocate and hold locks goes on in C++ here. What makes that safe:
//  - the locks of logging and of memory allocation are fork-safe: both are free in the child;
//  - the graph lock, whose owner is a thread of the parent, is never taken here: nothing below reaches the graph, the
//    barriers or the settings record;
//  - no object that another thread may have been using or creating at the fork is used: the dispatcher, the event loop
//    and the CLI framework are first created in this process;
//  - no descriptor of the parent stays open, such as the connection of another worker's client, which would hide that
//    client's end from whoever waits for it, here or elsewhere. Logging connects again by itself.
void QorcliExecutorProcess::Run() {
    try {
        relief = AcceptRelief();  // a parent that served connections by itself may have a reserve
        posix::CloseDescriptorsFrom(STDERR_FILENO + 1);
        RedirectStandardStreams(outputLog);
        SetupSocket();
        if (::daemon(0, 1) != 0) {
            throw Exception("Failed to daemonize");
        }
        ServeUntilStopped();
        ::_exit(0);
    } catch (const std::exception& e) {
        Log_Level(kError, "Unable to start executor: %s\n", e.what());
    } catch (...) {
        Log_Level(kError, "Unable to start executor\n");
    }
    ::_exit(-1);
}

void QorcliExecutorProcess::ServeUntilStopped() {
    StartEventLoop();
    Log_Level(kInfo, "Executor Reset - polling for commands\n");
    ::pthread_join(eventLoopThread, nullptr);
    listenSocket.Reset();
}

void QorcliExecutorProcess::SetupSocket() {
    const ControlSocketAddress address(controlSocket);
    posix::Descriptor created(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!created) {
        throw Exception(posix::WithReason("Error opening control socket for executor"));
    }
    if (BindForOwner(created, address) != 0) {
        throw Exception(posix::WithReason("Failed to bind to executor control socket"));
    }
    if (::listen(created.Get(), kBacklog) != 0) {
        throw Exception(posix::WithReason("Failed to listen on executor control socket"));
    }
    listenSocket = std::move(created);
}

void QorcliExecutorProcess::StartEventLoop() {
    if (::pthread_create(&eventLoopThread, nullptr, RunEventLoop, this) != 0) {
        throw Exception("Failed creating Executor Event Loop thread");
    }
}

void* QorcliExecutorProcess::RunEventLoop(void* process) {
    int listening = static_cast<const QorcliExecutorProcess*>(process)->listenSocket.Get();
    relief.SetAside();  // before the loop, which may take the last descriptors
    if (!SetUpPollLoop(listening)) {
        Log_Level(kError, "Failed setting up Poll Loop for executor\n");
        return nullptr;
    }
    Poll_Loop(true, &exitFlag, kPollMainClass);
    relief = AcceptRelief();
    return nullptr;
}

void QorcliExecutorProcess::HandleConnection(void* listenSocketPointer) {
    const int listening = *static_cast<const int*>(listenSocketPointer);
    // Closed on exec: a process that a command leaves behind must not keep the connection open.
    posix::Descriptor connection(
        posix::AcrossSignals([&] { return ::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC); }));
    if (!connection) {
        Log_Level(kWarning, "Error accepting connection on contol socket - %s\n\n", std::strerror(errno));
        relief.AfterFailure();
        return;
    }
    Serve(std::move(connection), listenSocketPointer);
    relief.SetAside();
}

}  // namespace lofter
