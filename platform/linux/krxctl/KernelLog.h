// Records for the kernel's log.
#pragma once

#include <string>
#include <vector>

namespace platform {

inline constexpr char kKernelLog[] = "/dev/kmsg";

// Writes each text as one record of priority "information" from lofter. Each ends with one line end, which
// the text may bring along; control characters are spelled out (see Printable.h). A text that is too long for a record
// loses its end. The log is never created. Throws std::runtime_error "<path>: <reason>" when it cannot be opened or
// written.
void WriteKernelLog(const char* path, const std::vector<std::string>& texts);

}  // namespace platform
