#include "posix/ChildProcess.h"

#include <cerrno>

#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace posix {

void CloseDescriptorsFrom(int first) {
    if (close_range(static_cast<unsigned>(first), ~0U, 0) == 0) {
        return;
    }
    // A kernel without the call: one by one, up to the limit.
    const long limit = sysconf(_SC_OPEN_MAX);
    for (int descriptor = first; descriptor < limit; ++descriptor) {
        Descriptor(descriptor).Reset();
    }
}

// By its number, because the C library's declaration is not usable from C++ in every version.
Descriptor WatchProcess(pid_t process) {
    return Descriptor(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
}

bool WaitForChild(pid_t child, int& status) {
    pid_t waited = -1;
    do {
        waited = waitpid(child, &status, 0);
    } while (waited < 0 && errno == EINTR);
    return waited == child;
}

}  // namespace posix
