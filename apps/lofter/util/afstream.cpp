#include "util/afstream.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "posix/File.h"
#include "posix/Reason.h"

namespace lofter {

namespace {

constexpr char kPatternSuffix[] = ".XXXXXX";

}  // namespace

afstream::afstream() : std::ostream(nullptr) {
    rdbuf(&file);
}

afstream::~afstream() {
    Discard();
}

void afstream::Discard() {
    if (tempName.empty()) {
        return;
    }
    file.close();
    temporary.Reset();
    unlink(tempName.c_str());
    tempName.clear();
    destination.clear();
}

void afstream::CreateTemporaryFile(const char* path) {
    const std::size_t size = std::strlen(path) + sizeof kPatternSuffix;
    const std::unique_ptr<char, decltype(&std::free)> pattern(static_cast<char*>(std::calloc(size, 1)), &std::free);
    if (!pattern) {
        throw std::runtime_error("insufficient memory to allocate buffer");
    }
    const int written = std::snprintf(pattern.get(), size, "%s%s", path, kPatternSuffix);
    if (written < 0 || static_cast<std::size_t>(written) != size - 1) {
        throw std::runtime_error("unable to allocate mkstemp pattern");
    }
    tempName.reserve(size);  // once there is a file, nothing may keep its name from being noted
    destination = path;
    temporary.Reset(mkostemp(pattern.get(), O_CLOEXEC));
    if (!temporary) {
        throw std::runtime_error(
            posix::WithReason("unable to create temporary file to write '" + std::string(path) + "'"));
    }
    tempName = pattern.get();
}

void afstream::open(const char* path, std::ios_base::openmode mode) {
    Discard();
    CreateTemporaryFile(path);
    posix::Descriptor written(fcntl(temporary.Get(), F_DUPFD_CLOEXEC, 0));
    if (written) {
        file = posix::BufferOn(std::move(written), mode | std::ios_base::out);
    }
    if (file.is_open()) {
        clear();
    } else {
        setstate(std::ios_base::failbit);
    }
    if (!good()) {
        throw std::runtime_error(posix::WithReason("failed to create temp file"));
    }
}

void afstream::reopen(const char* path, std::ios_base::openmode mode) {
    open(path, mode);
    const posix::Descriptor current = posix::OpenRegularFile(path, O_RDONLY);
    const std::optional<std::string> content = current ? posix::ReadWhole(current) : std::nullopt;
    if (content && !content->empty()) {
        write(content->data(), static_cast<std::streamsize>(content->size()));
        flush();
    } else {
        // There must be something to extend. An empty destination is no failure of the system's.
        errno = content ? 0 : errno;
        setstate(std::ios_base::failbit);
    }
    if (!good()) {
        throw std::runtime_error(posix::WithReason("failed to write to temp file"));
    }
}

void afstream::commit() {
    if (tempName.empty() || destination.empty()) {
        throw std::runtime_error("commit invoked on an unknown destination");
    }
    flush();
    if (file.close() == nullptr) {
        setstate(std::ios_base::failbit);
    }
    // The rename must not become durable before the data that it publishes.
    if (!posix::SyncToDisk(temporary)) {
        throw std::runtime_error(posix::WithReason("unable to sync '" + tempName + "'"));
    }

    errno = 0;
    struct stat old {};
    const bool hasOld = stat(destination.c_str(), &old) == 0;
    const int statError = hasOld ? 0 : errno;
    if (std::rename(tempName.c_str(), destination.c_str()) != 0) {
        throw std::runtime_error(posix::WithReason("unable to rename '" + tempName + "' to '" + destination + "'"));
    }
    tempName.clear();
    const posix::Descriptor committed = std::move(temporary);

    // The right to run as the owner or the group of the old file is not for the new one: its owner may be another. Nor
    // is what a link led to, such as /dev/null, which anybody may write.
    constexpr mode_t kPermissions = S_IRWXU | S_IRWXG | S_IRWXO;
    int permissionError = statError == ENOENT ? 0 : statError;
    if (hasOld && S_ISREG(old.st_mode) && fchmod(committed.Get(), old.st_mode & kPermissions) != 0) {
        permissionError = errno;
    }
    if (permissionError != 0) {
        throw std::runtime_error(posix::WithReason(
            "failed to restore file permissions, file permissions may be incorrect", permissionError));
    }
}

}  // namespace lofter
