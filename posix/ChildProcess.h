// What every part that makes a process of its own needs.
#pragma once

#include <sys/types.h>

namespace posix {

// Closes every descriptor from the given one up. Async-signal-safe where the system can close a range in one call.
void CloseDescriptorsFrom(int first);

// Waits for the child's end, across signals. Returns false, with errno set, when it cannot be waited for.
bool WaitForChild(pid_t child, int& status);

}  // namespace posix
