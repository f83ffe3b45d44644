#include "posix/File.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <sys/stat.h>
#include <unistd.h>

#include "posix/AcrossSignals.h"

namespace posix {

namespace {

// 0 when there is nothing to tell it from.
mode_t KindOf(const Descriptor& file) {
    struct stat status {};
    return ::fstat(file.Get(), &status) == 0 ? status.st_mode : 0;
}

Descriptor OpenKind(const std::string& path, int flags, mode_t mode, bool (*isWanted)(mode_t)) {
    Descriptor file = OpenAtOnce(path, flags, mode);
    const mode_t kind = file ? KindOf(file) : 0;
    if (file && !isWanted(kind)) {
        file.Reset();
        errno = S_ISDIR(kind) ? EISDIR : ENXIO;
    }
    return file;
}

}  // namespace

Descriptor OpenFile(const std::string& path, int flags, mode_t mode) {
    return Descriptor(AcrossSignals([&] { return ::open(path.c_str(), flags | O_CLOEXEC | O_NOCTTY, mode); }));
}

Descriptor OpenAtOnce(const std::string& path, int flags, mode_t mode) {
    Descriptor file = OpenFile(path, flags | O_NONBLOCK, mode);
    if (file) {
        ::fcntl(file.Get(), F_SETFL, flags & ~O_NONBLOCK);
    }
    return file;
}

Descriptor OpenRegularFile(const std::string& path, int flags, mode_t mode) {
    return OpenKind(path, flags, mode, [](mode_t kind) { return S_ISREG(kind); });
}

Descriptor OpenFileOrDevice(const std::string& path, int flags, mode_t mode) {
    return OpenKind(path, flags, mode, [](mode_t kind) { return S_ISREG(kind) || S_ISCHR(kind); });
}

bool IsRegularFile(const Descriptor& file) {
    return S_ISREG(KindOf(file));
}

std::optional<std::string> ReadWhole(const Descriptor& file, std::size_t longest) {
    std::string content;
    std::array<char, std::size_t{64} * 1024> buffer;
    while (content.size() < longest) {
        const std::size_t wanted = std::min(buffer.size(), longest - content.size());
        const ssize_t length = AcrossSignals([&] { return ::read(file.Get(), buffer.data(), wanted); });
        if (length < 0) {
            return std::nullopt;
        }
        if (length == 0) {
            break;
        }
        content.append(buffer.data(), static_cast<std::size_t>(length));
    }
    return content;
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
