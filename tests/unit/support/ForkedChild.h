// A forked copy of the test process that runs one function and ends with the function's result as its exit status. It
// is waited for with a bound, and never outlives its owner.
#pragma once

#include <chrono>

#include <sys/types.h>
#include <unistd.h>

namespace lofter::test {

// Waits for a child of this process: its exit status, or the negated number of the signal that ended it. A child that
// is still running at the end of the bound is killed, and the test fails.
int WaitForChild(pid_t child, std::chrono::milliseconds bound = std::chrono::seconds(20));

class ForkedChild {
  public:
    template <typename Work>
    explicit ForkedChild(Work&& work) : pid(::fork()) {
        if (pid == 0) {
            ::_exit(work());
        }
    }
    ~ForkedChild() {
        if (pid > 0) {
            Wait();
        }
    }
    ForkedChild(ForkedChild&& other) noexcept : pid(other.pid) { other.pid = -1; }
    ForkedChild& operator=(ForkedChild&&) = delete;

    int Wait() {
        const pid_t waited = pid;
        pid = -1;
        return WaitForChild(waited);
    }

  private:
    pid_t pid;
};

}  // namespace lofter::test
