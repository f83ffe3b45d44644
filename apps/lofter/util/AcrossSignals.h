// Repeats a system call for as long as signals interrupt it.
#pragma once

#include <cerrno>

namespace lofter {

template <typename Call>
auto AcrossSignals(Call call) {
    auto result = call();
    while (result == -1 && errno == EINTR) {
        result = call();
    }
    return result;
}

}  // namespace lofter
