// What is in a directory.
#pragma once

#include <string>
#include <vector>

#include "posix/Descriptor.h"

namespace posix {

// The names in it but "." and "..", in the directory's order. Throws std::filesystem::filesystem_error when it cannot
// be read. The standard library's walk aborts the process when memory runs out.
std::vector<std::string> FileNames(const std::string& path);

// The same for a directory that is open already, and has not been read yet. The path is for the error's text.
std::vector<std::string> FileNames(Descriptor directory, const std::string& path);

}  // namespace posix
