// The command executor: a process of its own that runs host commands, and the one object through which this process
// starts, feeds and stops it.
//
// Whether an executor runs is decided only by whether a connection to its control socket succeeds. Every message has a
// connection of its own:
//
//      client to executor   the command line as plain text, 1 to 1023 bytes in one piece; what is beyond that is lost
//      executor to client   its status, a signed 32-bit integer in the host's byte order: 0, or 1 for a failed command
//
//      client to executor   "stop", in any case and whatever follows: the executor ends and sends nothing back
//
// The executor serves one connection after another, so commands of parallel plugins are serialised there, and a client
// that says nothing holds up all others. The socket file is never removed: the run directory is empty at boot, and a
// file that is there already makes the start fail.
//
// Failures are Exceptions. Thread-safe on the client's side; resets are serialised by the graph lock.
#pragma once

#include <cstdint>
#include <string>

#include <pthread.h>

#include "posix/Descriptor.h"

namespace lofter {

class QorcliExecutor {
  public:
    // The process's executor, at the fixed places. Created on first use and never destroyed; creating it ignores
    // SIGPIPE, so that an executor that has gone away costs an error and not the process. First called before other
    // threads exist.
    static QorcliExecutor* Instance();

    QorcliExecutor(std::string controlSocketPath, std::string outputLogPath);
    QorcliExecutor(const QorcliExecutor&) = delete;
    QorcliExecutor& operator=(const QorcliExecutor&) = delete;
    virtual ~QorcliExecutor();

    // Returns a connected descriptor, which the caller owns, or -1. The reason is in errno and, if verbose, in the log.
    int Connect(bool verbose) const;

    // Makes sure that an executor answers: forks one when none does. On return its socket is listening. Throws "Failed
    // to fork<reason>", "Failed collecting executor's exit status" or "Lofter executor failed to start".
    void Reset();

    // Runs one command line in the executor, which is started when it does not answer. Throws when the command fails or
    // when the executor cannot be reached or goes away; the command is not repeated then.
    void SendCommand(const std::string& command);

    // Asks the executor to end, and waits until it has heard. Throws "Failed sending STOP to executor<reason>".
    void Stop() const;

    // The executor process's own steps.

    // Creates the control socket (mode 600 from its first moment, whatever the umask) and listens on it. Throws when
    // that fails. Called before the process has other threads.
    void SetupSocket();

    // Starts the thread that serves the socket. Throws "Failed creating Executor Event Loop thread".
    void StartEventLoop();

    // Starts it, waits until it has ended, and closes the socket.
    void ServeUntilStopped();

    // Serves one connection that is pending on the socket whose descriptor the pointer points to. A poll callback. One
    // that cannot be accepted is logged and stays pending, and the call returns after a pause: 10 milliseconds, twice
    // as long after each further failure, a second at most.
    static void HandleConnection(void* listenSocketPointer);

  private:
    static void Serve(posix::Descriptor connection, void* listenSocketPointer);
    static bool SetUpPollLoop(int& listening);
    static std::int32_t StatusOf(const char* command);
    static void* RunEventLoop(void* executor);
    [[noreturn]] void RunProcess();
    void ResetLocked();

    const std::string controlSocket;
    const std::string outputLog;

    // Set in the executor process only.
    posix::Descriptor listenSocket;
    pthread_t eventLoopThread{};
};

}  // namespace lofter
