#include "krxctl/SystemAlert.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string_view>

#include "krxctl/SystemInfoImpl.h"
#include "posix/File.h"
#include "posix/Printable.h"
#include "tslibs/LogOutput.h"

namespace platform {

namespace {

constexpr mode_t kAlertMode = 0644;

[[noreturn]] void Fail(const std::filesystem::path& path, int reason) {
    throw std::runtime_error(path.string() + ": " + std::strerror(reason));
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

}  // namespace

void RecordAlert(const std::filesystem::path& path, const std::string& text) {
    std::error_code failure;
    std::filesystem::create_directories(path.parent_path(), failure);
    if (failure) {
        Fail(path, failure.value());
    }
    if (!posix::ReplaceFile(path, ForLoginPrompt(text), kAlertMode)) {
        Fail(path, errno);
    }
}

void RaiseAlert(const std::filesystem::path& path, const std::string& text) {
    LogAlert(text);
    RecordAlert(path, text);
}

}  // namespace platform

namespace KrxCtl::System {

void SystemInfoImpl::SetSystemAlert(const std::string& text) {
    platform::RaiseAlert(platform::kAlertFile, text);
}

}  // namespace KrxCtl::System
