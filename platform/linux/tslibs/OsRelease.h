// Files in the format of os-release(5).
#pragma once

#include <istream>
#include <string>

namespace platform {

// What a shell that reads the file would have for the field; empty when the file does not set it. A value that spans
// lines ends with its first line.
std::string OsReleaseField(std::istream& file, const std::string& field);

}  // namespace platform
