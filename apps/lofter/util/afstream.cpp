#include "util/afstream.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "posix/AcrossSignals.h"
#include "posix/Descriptor.h"
#include "posix/File.h"

namespace lofter {

namespace {

constexpr char kPatternSuffix[] = ".XXXXXX";

std::string ErrorText(int error) {
    return std::strerror(error);
}

// The rename must not become durable before the data that it publishes. A file that has gone is the rename's to report.
void SyncFile(const std::string& path) {
    const posix::Descriptor file = posix::OpenFile(path, O_WRONLY);
    const bool isDone = file ? posix::SyncToDisk(file) : errno == ENOENT;
    if (!isDone) {
        throw std::runtime_error("unable to sync '" + path + "': " + ErrorText(errno));
    }
}

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
    const posix::Descriptor descriptor(mkstemp(pattern.get()));
    if (descriptor.Get() < 0) {
        throw std::runtime_error("unable to create temporary file to write '" + std::string(path) +
                                 "': " + ErrorText(errno));
    }
    tempName = pattern.get();
}

void afstream::open(const char* path, std::ios_base::openmode mode) {
    Discard();
    CreateTemporaryFile(path);
    posix::OpenAcrossSignals(file, tempName, mode | std::ios_base::out);
    if (file.is_open()) {
        clear();
    } else {
        setstate(std::ios_base::failbit);
    }
    if (!good()) {
        throw std::runtime_error("failed to create temp file: " + ErrorText(errno));
    }
}

void afstream::reopen(const char* path, std::ios_base::openmode mode) {
    open(path, mode);
    {
        std::ifstream current;
        posix::OpenAcrossSignals(current, path, std::ios_base::in | std::ios_base::binary);
        // An empty destination is no failure of the system's.
        errno = current.is_open() ? 0 : errno;
        // Sets the fail state when nothing could be copied: there must be something to extend.
        *this << current.rdbuf();
        flush();
        // A copy that broke off in the middle does not.
        if (good() && current.peek() != std::ifstream::traits_type::eof()) {
            setstate(std::ios_base::badbit);
        }
    }
    if (!good()) {
        throw std::runtime_error("failed to write to temp file: " + ErrorText(errno));
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
    SyncFile(tempName);

    errno = 0;
    struct stat old {};
    const bool hasOld = stat(destination.c_str(), &old) == 0;
    const int statError = hasOld ? 0 : errno;
    if (std::rename(tempName.c_str(), destination.c_str()) != 0) {
        throw std::runtime_error("unable to rename '" + tempName + "' to '" + destination + "': " + ErrorText(errno));
    }
    tempName.clear();

    int permissionError = statError == ENOENT ? 0 : statError;
    if (hasOld && chmod(destination.c_str(), old.st_mode & 07777) != 0) {
        permissionError = errno;
    }
    if (permissionError != 0) {
        throw std::runtime_error("failed to restore file permissions, file permissions may be incorrect: " +
                                 ErrorText(permissionError));
    }
}

}  // namespace lofter
