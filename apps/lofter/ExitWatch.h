// While it lives, an exit of this process that the program did not ask for, through exit() or quick_exit(), is a
// failure: the given last act is performed, and the exit status is 1. Processes that were forked meanwhile exit as they
// like.
//
// One at a time, and on the main thread. The last act must not throw.
#pragma once

#include <functional>

namespace lofter {

class ExitWatch {
  public:
    explicit ExitWatch(std::function<void()> lastAct);
    ~ExitWatch();
    ExitWatch(const ExitWatch&) = delete;
    ExitWatch& operator=(const ExitWatch&) = delete;
};

}  // namespace lofter
