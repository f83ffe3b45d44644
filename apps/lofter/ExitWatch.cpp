#include "ExitWatch.h"

#include <cstdlib>
#include <utility>

#include <unistd.h>

namespace lofter {

namespace {

struct Watch {
    pid_t process = -1;  // which is watched
    std::function<void()> lastAct;
};

// Never destroyed: it is wanted while the process exits.
Watch& TheWatch() {
    static auto& watch = *new Watch;
    return watch;
}

void OnExit() {
    if (TheWatch().process == getpid()) {
        TheWatch().process = -1;
        TheWatch().lastAct();
        _exit(EXIT_FAILURE);
    }
}

}  // namespace

ExitWatch::ExitWatch(std::function<void()> lastAct) {
    // Without memory for it there is no watch, and a host that boots all the same.
    static const bool isRegistered = std::atexit(OnExit) == 0 && std::at_quick_exit(OnExit) == 0;
    static_cast<void>(isRegistered);
    TheWatch() = {getpid(), std::move(lastAct)};
}

ExitWatch::~ExitWatch() {
    TheWatch() = {};
}

}  // namespace lofter
