#include "SyslogReload.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <string>

#include "base/Logging.h"
#include "base/Paths.h"
#include "posix/File.h"

namespace lofter {

namespace {

void UpgradeConfiguration() {
    std::error_code error;
    if (!std::filesystem::exists(paths::kSyslogConfiguration, error)) {
        return;
    }
    if (std::system(paths::kSyslogUpgradeScript) == -1) {
        Log_Level(kError, "failed to call %s\n", paths::kSyslogUpgradeScript);
    }
}

void SignalDaemon() {
    // A pipe in its place is not waited for, and not read: reading would wait, too.
    const posix::Descriptor file = posix::OpenFile(paths::kSyslogPidFile, O_RDONLY | O_NONBLOCK);
    if (!file) {
        // Names the kernel-side daemon on purpose, although the file is the user-level one's.
        Log_Level(kWarning, "unable to open krxsyslogd pid file.\n");
        return;
    }
    constexpr std::size_t kLongest = 4096;  // the rest of an oversized file is of no interest
    const std::optional<std::string> text =
        posix::IsRegularFile(file) ? posix::ReadWhole(file, kLongest) : std::nullopt;
    std::istringstream input(text.value_or(""));
    const std::optional<pid_t> daemon = ReadProcessId(input);
    if (!daemon) {
        Log_Level(kError, "unable to read tssyslogd pid.\n");
        return;
    }
    if (kill(*daemon, SIGUSR1) != 0) {
        Log_Level(kWarning, "failed to reload tssyslogd: %s.\n", std::strerror(errno));
    }
}

}  // namespace

std::optional<pid_t> ReadProcessId(std::istream& input) {
    pid_t processId = 0;
    return input >> processId && processId >= 1 ? std::optional(processId) : std::nullopt;
}

void ReloadSyslogDaemon() {
    UpgradeConfiguration();
    SignalDaemon();
}

}  // namespace lofter
