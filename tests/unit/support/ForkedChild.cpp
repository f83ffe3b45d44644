#include "support/ForkedChild.h"

#include <csignal>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include "posix/Descriptor.h"

namespace lofter::test {

int WaitForChild(pid_t child, std::chrono::milliseconds bound) {
    const posix::Descriptor handle(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
    pollfd ended{handle.Get(), POLLIN, 0};
    if (::poll(&ended, 1, static_cast<int>(bound.count())) != 1) {
        ADD_FAILURE() << "child " << child << " is still running";
        ::kill(child, SIGKILL);
    }
    int status = 0;
    if (::waitpid(child, &status, 0) != child) {
        ADD_FAILURE() << child << " is no child";
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

}  // namespace lofter::test
