#include "posix/File.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <sys/stat.h>
#include <unistd.h>

#include "posix/AcrossSignals.h"

namespace posix {

Descriptor OpenFile(const std::string& path, int flags, mode_t mode) {
    return Descriptor(AcrossSignals([&] { return ::open(path.c_str(), flags | O_CLOEXEC | O_NOCTTY, mode); }));
}

Descriptor OpenRegularFile(const std::string& path, int flags, mode_t mode) {
    Descriptor file = OpenFile(path, flags | O_NONBLOCK, mode);
    if (file && !IsRegularFile(file)) {
        file.Reset();
        errno = ENXIO;
    }
    return file;
}

bool IsRegularFile(const Descriptor& file) {
    struct stat status {};
    return ::fstat(file.Get(), &status) == 0 && S_ISREG(status.st_mode);
}

std::optional<std::string> ReadWhole(const Descriptor& file) {
    std::string content;
    std::array<char, std::size_t{64} * 1024> buffer;
    for (;;) {
        const ssize_t length = AcrossSignals([&] { return ::read(file.Get(), buffer.data(), buffer.size()); });
        if (length < 0) {
            return std::nullopt;
        }
        if (length == 0) {
            return content;
        }
        content.append(buffer.data(), static_cast<std::size_t>(length));
    }
}

bool WriteWhole(const Descriptor& file, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = AcrossSignals([&] { return ::write(file.Get(), text.data(), text.size()); });
        if (written < 0) {
            return false;
        }
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

bool SyncToDisk(const Descriptor& file) {
    return AcrossSignals([&] { return ::fsync(file.Get()); }) == 0 || errno == EINVAL;
}

bool ReplaceFile(const std::string& path, std::string_view content, mode_t mode) {
    std::string name = path + ".XXXXXX";
    const Descriptor file(::mkostemp(name.data(), O_CLOEXEC));
    if (!file) {
        return false;
    }
    if (WriteWhole(file, content) && ::fchmod(file.Get(), mode) == 0 && ::rename(name.c_str(), path.c_str()) == 0) {
        return true;
    }
    const int reason = errno;
    ::unlink(name.c_str());
    errno = reason;
    return false;
}

}  // namespace posix
