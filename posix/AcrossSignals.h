// Repeats a system call for as long as signals interrupt it. Opening is such a call, too: of a pipe, a device, or a
// file that another machine or program serves.
#pragma once

#include <cerrno>
#include <ios>

namespace posix {

template <typename Call>
auto AcrossSignals(Call call) {
    auto result = call();
    while (result == -1 && errno == EINTR) {
        result = call();
    }
    return result;
}

// The same for a file stream or its buffer. Why it is not open then is in errno.
template <typename File, typename Path>
void OpenAcrossSignals(File& file, const Path& path, std::ios_base::openmode mode) {
    do {
        errno = 0;
        file.open(path, mode);
    } while (!file.is_open() && errno == EINTR);
}

}  // namespace posix
