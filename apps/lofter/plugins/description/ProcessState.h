// What code from elsewhere, run in this process, may leave changed without breaking it: put back when the owner goes.
//
// That is the working directory, the umask, the environment, the interval timers, and the dispositions and the mask of
// signals. A copy of the process that such code forked and let go on is ended: there is one boot only. For a process
// without other threads, in which nothing else changes any of these meanwhile, and whose environment is still the array
// that it was started with: one that setenv() has made is gone once it makes the next.
#pragma once

#include <array>
#include <csignal>
#include <vector>

#include <sys/time.h>
#include <sys/types.h>

#include "posix/Descriptor.h"

namespace lofter {

class ProcessState {
  public:
    ProcessState();
    ~ProcessState();
    ProcessState(const ProcessState&) = delete;
    ProcessState& operator=(const ProcessState&) = delete;

  private:
    struct Disposition {
        int number;
        struct sigaction action;
    };

    const pid_t process;
    const posix::Descriptor workingDirectory;
    const mode_t fileModeMask;
    char** const environment;
    std::vector<char*> variables;
    std::array<itimerval, 3> timers{};
    std::vector<Disposition> dispositions;
    sigset_t blockedSignals{};
};

}  // namespace lofter
