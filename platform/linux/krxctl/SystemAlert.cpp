#include "krxctl/SystemAlert.h"

#include <cerrno>
#include <stdexcept>
#include <string_view>
#include <utility>

#include <sys/stat.h>

#include "krxctl/SystemInfoImpl.h"
#include "posix/File.h"
#include "posix/Printable.h"
#include "posix/Reason.h"
#include "tslibs/LogOutput.h"

namespace platform {

namespace {

constexpr mode_t kFolderMode = 0755;
constexpr mode_t kAlertMode = 0644;

[[noreturn]] void Fail(const std::filesystem::path& path) {
    throw std::runtime_error(posix::WithReason(path));
}

// The login prompt reads a backslash as the start of an escape.
std::string ForLoginPrompt(std::string_view text) {
    std::string escaped;
    for (const char symbol : posix::Printable(text)) {
        escaped.append(symbol == '\\' ? 2 : 1, symbol);
    }
    if (!escaped.ends_with('\n')) {
        escaped.push_back('\n');
    }
    return escaped;
}

// A run of many alerts does not write the first ones again for each. Nothing but what this process has written itself
// is extended.
bool Extend(const std::filesystem::path& path, std::size_t published, std::string_view text) {
    const posix::Descriptor file = posix::OpenRegularFile(path, O_WRONLY | O_APPEND);
    struct stat status {};
    return file && ::fstat(file.Get(), &status) == 0 && static_cast<std::size_t>(status.st_size) == published &&
           posix::WriteWhole(file, text);
}

}  // namespace

SystemAlert::SystemAlert(std::filesystem::path issueFile) : path(std::move(issueFile)) {}

void SystemAlert::Raise(const std::string& text) {
    const std::lock_guard held(lock);
    LogAlert(text);
    const std::string shown = ForLoginPrompt(text);
    const std::size_t published = raised.size();
    raised += shown;
    if (published > 0 && Extend(path, published, shown)) {
        return;
    }
    if (::mkdir(path.parent_path().c_str(), kFolderMode) != 0 && errno != EEXIST) {
        Fail(path);
    }
    if (!posix::ReplaceFile(path, raised, kAlertMode)) {
        Fail(path);
    }
}

}  // namespace platform

namespace KrxCtl::System {

void SystemInfoImpl::SetSystemAlert(const std::string& text) {
    // The process's one alert; never destroyed, since threads may raise it until the process is gone.
    static auto& alert = *new platform::SystemAlert(platform::kAlertFile);
    alert.Raise(text);
}

}  // namespace KrxCtl::System
