#include "SyslogReload.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include <boost/algorithm/string/trim.hpp>
#include <boost/lexical_cast/try_lexical_convert.hpp>

#include "Logging.h"
#include "Paths.h"
#include "posix/AcrossSignals.h"

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
    std::ifstream file;
    posix::OpenAcrossSignals(file, paths::kSyslogPidFile, std::ios::in);
    if (!file) {
        // Names the kernel-side daemon on purpose, although the file is the user-level one's.
        Log_Level(kWarning, "unable to open krxsyslogd pid file.\n");
        return;
    }
    const std::optional<pid_t> daemon = ReadProcessId(file);
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
    // More than any process id with the white space around it; the rest of an oversized file is of no interest.
    constexpr std::size_t kLongest = 64;
    std::string text(kLongest + 1, '\0');
    input.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(input.gcount()));
    boost::algorithm::trim(text);

    pid_t processId = 0;
    if (text.size() > kLongest || !boost::conversion::try_lexical_convert(text, processId) || processId < 1) {
        return std::nullopt;
    }
    return processId;
}

void ReloadSyslogDaemon() {
    UpgradeConfiguration();
    SignalDaemon();
}

}  // namespace lofter
