#include "krxctl/SystemAlert.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Descriptor.h"
#include "Printable.h"
#include "krxctl/SystemInfoImpl.h"
#include "tslibs/LogOutput.h"

namespace platform {

namespace {

[[noreturn]] void Fail(const std::filesystem::path& path, int reason) {
    throw std::runtime_error(path.string() + ": " + std::strerror(reason));
}

// A new file beside the target, gone with its owner unless it has taken the target's place.
class Replacement {
  public:
    explicit Replacement(const std::filesystem::path& targetPath)
        : target(targetPath), name(targetPath.parent_path() / ("." + targetPath.filename().string() + ".XXXXXX")) {
        file.Reset(::mkostemp(name.data(), O_CLOEXEC));
        if (!file) {
            Fail(target, errno);
        }
    }
    ~Replacement() {
        if (file) {
            ::unlink(name.c_str());
        }
    }
    Replacement(const Replacement&) = delete;
    Replacement& operator=(const Replacement&) = delete;

    void Write(std::string_view text) {
        while (!text.empty()) {
            const ssize_t written = ::write(file.Get(), text.data(), text.size());
            if (written >= 0) {
                text.remove_prefix(static_cast<std::size_t>(written));
            } else if (errno != EINTR) {
                Fail(target, errno);
            }
        }
    }

    void Commit() {
        if (::fchmod(file.Get(), 0644) != 0 || ::rename(name.c_str(), target.c_str()) != 0) {
            Fail(target, errno);
        }
        file.Reset();
    }

  private:
    const std::filesystem::path target;
    std::string name;
    Descriptor file;
};

// The login prompt reads a backslash as the start of an escape.
std::string ForLoginPrompt(std::string_view text) {
    std::string escaped;
    for (const char symbol : Printable(text)) {
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
    Replacement replacement(path);
    replacement.Write(ForLoginPrompt(text));
    replacement.Commit();
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
