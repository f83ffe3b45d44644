// What every part that makes a process of its own needs.
#pragma once

#include <sys/types.h>

#include "posix/Descriptor.h"

namespace posix {

// Closes every descriptor from the given one up. Async-signal-safe where the system can close a range in one call.
void CloseDescriptorsFrom(int first);

// A descriptor that is readable once the process has ended, closed on exec. Owns nothing, with the reason in errno,
// where there is no such process or the kernel knows no such descriptors.
Descriptor WatchProcess(pid_t process);

// Waits for the child's end, across signals. Returns false, with errno set, when it cannot be waited for.
bool WaitForChild(pid_t child, int& status);

}  // namespace posix
