#include "base/Logging.h"

#include <cstdio>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/Exception.h"
#include "base/Paths.h"
#include "posix/Descriptor.h"
#include "posix/File.h"
#include "tslibs/dictionary.h"
#include "tslibs/productState.h"

namespace lofter {

namespace {

// A file that was opened while a standard stream was closed has become that stream.
void KeepStandardStream(posix::Descriptor& opened) {
    if (opened && opened.Get() <= STDERR_FILENO) {
        fcntl(opened.Get(), F_SETFD, 0);
        static_cast<void>(opened.Release());
    }
}

}  // namespace

void InitializeLogging(const std::string& identifier) {
    // Log lines and what goes through stdio interleave in the order in which they are written.
    std::fflush(stdout);
    std::setvbuf(stdout, nullptr, _IONBF, 0);

    const std::unique_ptr<Dictionary, decltype(&Dictionary_Free)> configuration(Dictionary_Create(), &Dictionary_Free);
    Dict_SetString(configuration.get(), "log.syslogID", identifier.c_str());
    Dict_SetString(configuration.get(), "log.syslogLevel", "info");
    Log_SetProductInfo(ProductState_GetName(), ProductState_GetVersion(), ProductState_GetBuildNumberString(),
                       ProductState_GetCompilationOption());
    if (!Log_InitWithSyslogInt(configuration.get())) {
        throw Exception("Failed to initialize logging to syslog.\n");
    }

    Dictionary_Clear(configuration.get());
    Dict_SetString(configuration.get(), "log.stdoutLevel", "info");
    Dict_SetBool(configuration.get(), "log.useTimeStamps.stdio", true);
    Dict_SetBool(configuration.get(), "log.useMilliseconds.stdio", true);
    LogOutput* standardOutput = Log_NewStdioOutput(configuration.get());
    if (standardOutput == nullptr) {
        throw Exception("Failed creating standard out logging interface.\n");
    }
    if (!Log_AddOutput(standardOutput)) {
        throw Exception("Failed adding standard out logging interface.\n");
    }
    Log_SetStderrLevel(-1);
}

void RedirectStandardStreams(const std::string& logPath) {
    posix::Descriptor null = posix::OpenFile(paths::kNull, O_RDWR);
    if (!null) {
        Warning("Failed opening /dev/null");
    } else if (dup2(null.Get(), STDIN_FILENO) != STDIN_FILENO) {
        Warning("Failed redirecting stdin to /dev/null");
    }
    KeepStandardStream(null);

    constexpr mode_t kLogMode = S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH;
    posix::Descriptor log = posix::OpenFileOrDevice(logPath, O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW, kLogMode);
    if (!log) {
        Warning("Failed opening log file %s", logPath.c_str());
        return;
    }
    if (dup2(log.Get(), STDOUT_FILENO) != STDOUT_FILENO) {
        Warning("Failed redirecting stdout to %s", logPath.c_str());
    }
    if (dup2(log.Get(), STDERR_FILENO) != STDERR_FILENO) {
        Warning("Failed redirecting stderr to %s", logPath.c_str());
    }
    KeepStandardStream(log);
}

}  // namespace lofter
