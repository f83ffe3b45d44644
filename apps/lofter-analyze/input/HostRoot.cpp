#include "input/HostRoot.h"

#include <cerrno>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "input/Errors.h"
#include "posix/AcrossSignals.h"
#include "posix/Directory.h"
#include "posix/File.h"

namespace lofter::analyze {

HostRoot::HostRoot(const std::string& path) : directory(posix::OpenFile(path, O_PATH | O_DIRECTORY)) {
    if (!directory) {
        throw InputError(path, std::strerror(errno));
    }
}

posix::Descriptor HostRoot::Open(const std::string& path, int flags) const {
    open_how how{};
    how.flags = static_cast<decltype(how.flags)>(flags) | O_CLOEXEC;
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
    // By its number, because the C library has no function for it. It gives up when directories are renamed on the way.
    constexpr int kTries = 100;
    for (int left = kTries;; --left) {
        const auto open = [&] {
            return ::syscall(SYS_openat2, directory.Get(), path.c_str(), &how, sizeof how);
        };
        const int opened = static_cast<int>(posix::AcrossSignals(open));
        if (opened >= 0 || errno != EAGAIN || left == 0) {
            return posix::Descriptor(opened);
        }
    }
}

posix::Descriptor HostRoot::OpenFile(const std::string& path) const {
    // Looked at before it is opened to be read: opening is enough for some devices to do something.
    const std::optional<struct stat> status = Status(path);
    if (!status) {
        return {};
    }
    posix::Descriptor file;
    if (S_ISREG(status->st_mode)) {
        file = Open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
        if (!file || posix::IsRegularFile(file)) {
            return file;
        }
        file.Reset();
    }
    errno = S_ISDIR(status->st_mode) ? EISDIR : ENXIO;
    return file;
}

std::optional<std::string> HostRoot::ReadFile(const std::string& path, std::size_t longest) const {
    const posix::Descriptor file = OpenFile(path);
    if (!file) {
        return std::nullopt;
    }
    std::optional<std::string> content = posix::ReadWhole(file, longest + 1);
    if (content && content->size() > longest) {
        content.reset();
        errno = EFBIG;
    }
    return content;
}

std::optional<std::vector<std::string>> HostRoot::FileNames(const std::string& path) const {
    posix::Descriptor opened = Open(path, O_RDONLY | O_DIRECTORY);
    if (!opened) {
        return std::nullopt;
    }
    try {
        return posix::FileNames(std::move(opened), path);
    } catch (const std::filesystem::filesystem_error& e) {
        errno = e.code().value();
        return std::nullopt;
    }
}

std::optional<struct stat> HostRoot::Status(const std::string& path) const {
    const posix::Descriptor found = Open(path, O_PATH);
    struct stat status {};
    if (!found || ::fstat(found.Get(), &status) != 0) {
        return std::nullopt;
    }
    return status;
}

std::optional<HostRoot> OpenRoot(const InputOptions& options) {
    if (!options.isRootGiven && (options.graph || options.pluginDirectory)) {
        return std::nullopt;
    }
    return HostRoot(options.root);
}

}  // namespace lofter::analyze
