// Repeats a system call for as long as signals interrupt it. Opening is such a call, too: of a pipe, a device, or a
// file that another machine or program serves.
#pragma once

#include <cerrno>
#include <filesystem>
#include <ios>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <dirent.h>

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

// The names in a directory but "." and "..", in the directory's order. Throws filesystem_error when it cannot be read.
inline std::vector<std::string> FileNamesAcrossSignals(const std::string& path) {
    struct Close {
        void operator()(DIR* directory) const { ::closedir(directory); }
    };
    std::unique_ptr<DIR, Close> directory;
    do {
        errno = 0;
        directory.reset(::opendir(path.c_str()));
    } while (directory == nullptr && errno == EINTR);
    std::vector<std::string> names;
    while (directory != nullptr) {
        errno = 0;  // also what succeeds may leave something there, and only this tells the end from a failure
        const dirent* const entry = ::readdir(directory.get());
        if (entry == nullptr) {
            break;
        }
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") {
            names.emplace_back(name);
        }
    }
    if (errno != 0) {
        throw std::filesystem::filesystem_error("directory iterator cannot open directory", path,
                                                std::error_code(errno, std::generic_category()));
    }
    return names;
}

}  // namespace lofter
