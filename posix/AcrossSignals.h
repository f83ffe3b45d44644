// Repeats a system call for as long as signals interrupt it. Opening is such a call, too: of a pipe, a device, or a
// file that another machine or program serves.
#pragma once

#include <cerrno>

namespace posix {

template <typename Call>
auto AcrossSignals(Call call) {
    auto result = call();
    while (result == -1 && errno == EINTR) {
        result = call();
    }
    return result;
}

}  // namespace posix
