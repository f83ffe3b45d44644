// Why the system refused something, for whoever reads the error text.
#pragma once

#include <cerrno>
#include <cstring>
#include <string>

namespace posix {

// "<what>: <reason>", with the path in `what` where there is one.
inline std::string WithReason(const std::string& what, int error = errno) {
    return what + ": " + std::strerror(error);
}

}  // namespace posix
