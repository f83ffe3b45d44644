// Files: opened without surprises, read and written whole, made durable.
//
// Whatever fails says why in errno. Interrupted calls are repeated.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <sys/types.h>

#include "posix/Descriptor.h"

namespace posix {

// Opens a file, closed on exec and never as the controlling terminal. The result owns nothing when it cannot be opened.
Descriptor OpenFile(const std::string& path, int flags, mode_t mode = 0);

// As OpenFile, but never waits for a pipe's other end: opening a pipe that nobody reads for writing fails with ENXIO.
// Once it is open, reading and writing wait as usual.
Descriptor OpenAtOnce(const std::string& path, int flags, mode_t mode = 0);

// As OpenAtOnce, for a regular file. Anything else that can be opened fails with ENXIO, a directory with EISDIR.
Descriptor OpenRegularFile(const std::string& path, int flags, mode_t mode = 0);

// As OpenRegularFile, but a character device may be opened, too.
Descriptor OpenFileOrDevice(const std::string& path, int flags, mode_t mode = 0);

bool IsRegularFile(const Descriptor& file);

// What is left of a file up to its end, or to that many bytes; nothing when reading fails on the way.
std::optional<std::string> ReadWhole(const Descriptor& file, std::size_t longest = std::string::npos);

// False when not all of the text could be written.
bool WriteWhole(const Descriptor& file, std::string_view text);

// False when the data did not reach the disk. A file that cannot be synced, such as a pipe, counts as synced.
bool SyncToDisk(const Descriptor& file);

// Puts a file of that content and mode in the path's place in one step. False when it cannot be done; what was there
// before is untouched then.
bool ReplaceFile(const std::string& path, std::string_view content, mode_t mode);

}  // namespace posix
