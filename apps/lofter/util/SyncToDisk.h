// Makes what was written to a file durable.
#pragma once

#include <cerrno>

#include <unistd.h>

namespace lofter {

// Returns false, with errno set, when the data did not reach the disk. A file that cannot be synced, such as a pipe,
// counts as synced.
inline bool SyncToDisk(int descriptor) {
    while (fsync(descriptor) != 0) {
        if (errno != EINTR) {
            return errno == EINVAL;
        }
    }
    return true;
}

}  // namespace lofter
