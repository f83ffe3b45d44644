// The client of the command executor: the one object through which the program starts the executor process, feeds it
// with host commands and stops it.
//
// Failures are Exceptions. Thread-safe; resets are serialised by the graph lock. The executor serves one connection
// after another, so the commands of parallel plugins wait for each other there.
#pragma once

#include <string>

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
    void Reset() const;

    // Runs one command line in the executor, which is started when it does not answer. Throws when the command fails or
    // when the executor cannot be reached or goes away; the command is not repeated then.
    void SendCommand(const std::string& command) const;

    // Asks the executor to end, and waits until it has heard. Throws "Failed sending STOP to executor<reason>".
    void Stop() const;

  private:
    void ResetLocked() const;

    const std::string controlSocket;
    const std::string outputLog;
};

}  // namespace lofter
