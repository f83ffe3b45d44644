// Repeats a system call for as long as signals interrupt it. Opening is such a call, too: of a pipe, a device, or a
// file that another machine or program serves.
#pragma once

#include <cerrno>
#include <filesystem>
#include <ios>
#include <system_error>

namespace lofter {

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

// The same for a directory; throws filesystem_error when it cannot be read.
inline std::filesystem::directory_iterator OpenDirectoryAcrossSignals(const std::filesystem::path& path) {
    std::error_code failure;
    std::filesystem::directory_iterator directory;
    do {
        directory = std::filesystem::directory_iterator(path, failure);
    } while (failure == std::errc::interrupted);
    if (failure) {
        throw std::filesystem::filesystem_error("directory iterator cannot open directory", path, failure);
    }
    return directory;
}

}  // namespace lofter
