// A file that an option names: a path here, whatever host is looked at, or "-" for standard input.
#pragma once

#include <string>

namespace lofter::analyze {

// Its content. What cannot be read whole, or is a directory, is an InputError.
std::string ReadGivenFile(const std::string& path);

}  // namespace lofter::analyze
