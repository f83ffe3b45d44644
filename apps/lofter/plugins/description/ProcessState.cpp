#include "plugins/description/ProcessState.h"

#include <algorithm>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace lofter {

namespace {

constexpr std::array kTimers{ITIMER_REAL, ITIMER_VIRTUAL, ITIMER_PROF};

// Known only by being set. Nothing is created in between, and if it were, then for nobody else.
mode_t FileModeMask() {
    const mode_t mask = umask(S_IRWXG | S_IRWXO);
    umask(mask);
    return mask;
}

std::vector<char*> Variables(char** environment) {
    std::vector<char*> variables;
    for (; environment != nullptr && *environment != nullptr; ++environment) {
        variables.push_back(*environment);
    }
    return variables;
}

}  // namespace

ProcessState::ProcessState()
    : process(getpid()),
      workingDirectory(open(".", O_PATH | O_DIRECTORY | O_CLOEXEC)),
      fileModeMask(FileModeMask()),
      environment(environ),
      variables(Variables(environ)) {
    for (std::size_t index = 0; index < kTimers.size(); ++index) {
        getitimer(kTimers[index], &timers[index]);
    }
    for (int number = 1; number < NSIG; ++number) {
        Disposition disposition{number, {}};
        if (sigaction(number, nullptr, &disposition.action) == 0) {  // the C library keeps some to itself
            dispositions.push_back(disposition);
        }
    }
    sigprocmask(SIG_SETMASK, nullptr, &blockedSignals);
}

// The timers before the signals that they send, which may be blocked; the mask last.
ProcessState::~ProcessState() {
    if (getpid() != process) {
        _exit(0);
    }
    for (std::size_t index = 0; index < kTimers.size(); ++index) {
        setitimer(kTimers[index], &timers[index], nullptr);
    }
    for (const Disposition& disposition : dispositions) {
        sigaction(disposition.number, &disposition.action, nullptr);
    }
    sigprocmask(SIG_SETMASK, &blockedSignals, nullptr);
    umask(fileModeMask);
    // The array may have been changed in place; its end has not moved by then.
    environ = environment;
    std::copy(variables.begin(), variables.end(), environ);
    // Without a working directory there is none to go back to.
    static_cast<void>(fchdir(workingDirectory.Get()) == 0);
}

}  // namespace lofter
