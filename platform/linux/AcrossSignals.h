// Repeats a system call for as long as signals interrupt it. Opening is such a call, too: of a pipe, a device, or a
// file that another machine or program serves. For this layer.
#pragma once

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace platform {

template <typename Call>
auto AcrossSignals(Call call) {
    auto result = call();
    while (result == -1 && errno == EINTR) {
        result = call();
    }
    return result;
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

}  // namespace platform
