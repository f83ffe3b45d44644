#include "posix/Directory.h"

#include <cerrno>
#include <filesystem>
#include <memory>
#include <string_view>
#include <system_error>

#include <dirent.h>

namespace posix {

namespace {

struct Close {
    void operator()(DIR* directory) const { ::closedir(directory); }
};
using OpenDirectory = std::unique_ptr<DIR, Close>;

// Of nothing when the directory could not be opened, for a reason that is in errno.
std::vector<std::string> NamesIn(const OpenDirectory& directory, const std::string& path) {
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

}  // namespace

std::vector<std::string> FileNames(const std::string& path) {
    OpenDirectory directory;
    do {
        errno = 0;
        directory.reset(::opendir(path.c_str()));
    } while (directory == nullptr && errno == EINTR);
    return NamesIn(directory, path);
}

std::vector<std::string> FileNames(Descriptor directory, const std::string& path) {
    errno = 0;
    const OpenDirectory opened(::fdopendir(directory.Get()));
    if (opened != nullptr) {
        static_cast<void>(directory.Release());  // closed with the stream
    }
    return NamesIn(opened, path);
}

}  // namespace posix
