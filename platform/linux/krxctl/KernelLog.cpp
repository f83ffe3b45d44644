#include "krxctl/KernelLog.h"

#include <array>
#include <stdexcept>

#include "posix/File.h"
#include "posix/Printable.h"
#include "posix/Reason.h"

namespace platform {

namespace {

constexpr char kPrefix[] = "<6>lofter: ";

// The kernel refuses longer records than 1024 bytes less its own prefix, of which versions differ.
constexpr std::size_t kLongestRecord = 960;

// The kernel keeps a record back, in case it is continued, until it ends with a line end, which is not part of it.
std::string RecordOf(const std::string& text) {
    std::array<char, kLongestRecord - 1> shown;
    std::string record(posix::Printable(kPrefix + text, shown));
    if (!record.ends_with('\n')) {
        record.push_back('\n');
    }
    return record;
}

[[noreturn]] void Fail(const char* path) {
    throw std::runtime_error(posix::WithReason(path));
}

}  // namespace

void WriteKernelLog(const char* path, const std::vector<std::string>& texts) {
    const posix::Descriptor log = posix::OpenFileOrDevice(path, O_WRONLY | O_APPEND);
    if (!log) {
        Fail(path);
    }
    // A terminal in its place that is stopped takes nothing, and would be waited for.
    ::fcntl(log.Get(), F_SETFL, O_APPEND | O_NONBLOCK);
    for (const std::string& text : texts) {
        if (!posix::WriteWhole(log, RecordOf(text))) {
            Fail(path);
        }
    }
}

}  // namespace platform
