// The command executor: a process of its own that listens on the control socket and runs the host commands that come in
// there, until it is told to stop.
//
//      forked ──▶ socket set up ──▶ daemonized ──▶ serving ──("stop")──▶ exited with 0
//        └───────────────┴────────────────┴──(failure, logged)──▶ exited with 255
//
// One thread serves one connection after another, so a client that says nothing holds up all others; the main thread
// waits for its end. Failures of the set-up are Exceptions.
#pragma once

#include <string>

#include <pthread.h>

#include "posix/Descriptor.h"

namespace lofter {

class QorcliExecutorProcess {
  public:
    // Where it listens, and where its standard output and error go.
    QorcliExecutorProcess(std::string controlSocketPath, std::string outputLogPath);

    // All of it, for a freshly forked child. The process that was forked ends with status 0 once the socket is
    // listening, and its child goes on as the executor.
    [[noreturn]] void Run();

    // Creates the control socket (mode 600 from its first moment, whatever the umask) and listens on it. Throws when
    // that fails. Called before the process has other threads.
    void SetupSocket();

    // Starts the thread that serves the socket. Throws "Failed creating Executor Event Loop thread".
    void StartEventLoop();

    // Starts it, waits until it has ended, and closes the socket.
    void ServeUntilStopped();

    // Serves one connection that is pending on the socket whose descriptor the pointer points to. A poll callback. One
    // that cannot be accepted is logged and stays pending, and the call returns after a pause.
    static void HandleConnection(void* listenSocketPointer);

  private:
    static void* RunEventLoop(void* process);

    const std::string controlSocket;
    const std::string outputLog;
    posix::Descriptor listenSocket;
    pthread_t eventLoopThread{};
};

}  // namespace lofter
