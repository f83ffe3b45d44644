#include "tslibs/log.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <errno.h>
#include <pthread.h>
#include <unistd.h>

#include "tslibs/LogOutput.h"
#include "tslibs/StreamOutput.h"
#include "tslibs/SyslogOutput.h"
#include "tslibs/str.h"

namespace platform {

namespace {

struct LogLibrary {
    LogLibrary() {
        pthread_atfork([] { Instance().lock.lock(); }, [] { Instance().lock.unlock(); },
                       [] { Instance().GoOnInChild(); });
    }

    void GoOnInChild() {
        for (const auto& output : outputs) {
            output->AfterFork();
        }
        if (standardError) {
            standardError->AfterFork();
        }
        lock.unlock();
    }

    // Never destroyed: threads may log until the process is gone.
    static LogLibrary& Instance() {
        static LogLibrary& library = *new LogLibrary;
        return library;
    }

    std::mutex lock;
    std::vector<std::unique_ptr<LogOutput>> outputs;
    LogOutput* syslogOutput = nullptr;  // the one that a further initialisation replaces
    std::unique_ptr<LogOutput> standardError;
    std::string identifier = program_invocation_short_name;
    std::string product;
};

// Before main, while there is one thread: a fork can come at any time after it.
[[maybe_unused]] const LogLibrary& createdEarly = LogLibrary::Instance();

// Messages are given with a line end or without; either way one is theirs, and further ones are part of the text.
std::string_view WithoutLineEnd(std::string_view message) {
    if (message.ends_with('\n')) {
        message.remove_suffix(1);
    }
    return message;
}

void WriteToOutputs(int level, std::string_view message) {
    LogLibrary& library = LogLibrary::Instance();
    const LogLock held;
    for (const auto& output : library.outputs) {
        output->Write(level, message);
    }
    if (library.standardError) {
        library.standardError->Write(level, message);
    }
}

void WriteToSyslog(int level, std::string_view message) {
    const LogLock held;
    if (LogOutput* const output = LogLibrary::Instance().syslogOutput) {
        output->Write(level, message);
    }
}

// Formats a message and hands it on, without its line end.
void Deliver(void (*write)(int level, std::string_view message), int level, const char* format, va_list arguments) {
    const int callersError = errno;
    // Messages of ordinary length need no memory; see the note on forks in LogOutput.h.
    std::array<char, kOrdinaryLength> line{};
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(line.data(), line.size(), format, arguments);
    if (length >= 0 && static_cast<std::size_t>(length) < line.size()) {
        write(level, WithoutLineEnd({line.data(), static_cast<std::size_t>(length)}));
    } else {
        std::size_t fullLength = 0;
        errno = callersError;
        const std::unique_ptr<char, decltype(&std::free)> text(Str_SafeVasprintf(&fullLength, format, again),
                                                               &std::free);
        write(level, WithoutLineEnd({text.get(), fullLength}));
    }
    va_end(again);
    errno = callersError;
}

}  // namespace

LogLock::LogLock() {
    LogLibrary::Instance().lock.lock();
}

LogLock::~LogLock() {
    LogLibrary::Instance().lock.unlock();
}

bool FindLevel(std::string_view name, int& level) {
    static constexpr std::array<std::pair<std::string_view, int>, 3> kLevels{
        {{"error", kErrorLevel}, {"warning", kWarningLevel}, {"info", kInfoLevel}}};
    const auto* found =
        std::find_if(kLevels.begin(), kLevels.end(), [&](const auto& known) { return known.first == name; });
    if (found == kLevels.end()) {
        return false;
    }
    level = found->second;
    return true;
}

std::unique_ptr<LogOutput> RemoveLogOutput(const LogOutput* output) {
    LogLibrary& library = LogLibrary::Instance();
    const LogLock held;
    const auto found = std::find_if(library.outputs.begin(), library.outputs.end(),
                                    [&](const auto& known) { return known.get() == output; });
    if (found == library.outputs.end()) {
        return nullptr;
    }
    std::unique_ptr<LogOutput> removed = std::move(*found);
    library.outputs.erase(found);
    if (library.syslogOutput == output) {
        library.syslogOutput = nullptr;
    }
    return removed;
}

void LogAlert(std::string_view message) {
    const int callersError = errno;
    {
        const LogLock held;
        for (const auto& output : LogLibrary::Instance().outputs) {
            output->Alert(WithoutLineEnd(message));
        }
    }
    errno = callersError;
}

std::string LoggedProduct() {
    const LogLock held;
    return LogLibrary::Instance().product;
}

bool InitializeSyslog(const char* socketPath, const Dictionary* configuration) {
    const char* identifier = Dict_GetString(configuration, "log.syslogID", nullptr);
    int level = 0;
    if (identifier == nullptr || !FindLevel(Dict_GetString(configuration, "log.syslogLevel", "info"), level)) {
        return false;
    }
    auto output = std::make_unique<SyslogOutput>(socketPath, identifier, level);
    LogLibrary& library = LogLibrary::Instance();
    RemoveLogOutput(library.syslogOutput);
    const LogLock held;
    library.identifier = identifier;
    library.syslogOutput = output.get();
    library.outputs.push_back(std::move(output));
    return true;
}

void LogFormatted(int level, const char* format, va_list arguments) {
    Deliver(WriteToOutputs, level, format, arguments);
}

}  // namespace platform

using platform::LogLibrary;
using platform::LogLock;

void Log_Level(int level, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    platform::LogFormatted(level, format, arguments);
    va_end(arguments);
}

void Log_Syslog(int level, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    platform::Deliver(platform::WriteToSyslog, level, format, arguments);
    va_end(arguments);
}

bool Log_InitWithSyslogInt(const Dictionary* configuration) {
    return platform::InitializeSyslog(platform::kSyslogSocket, configuration);
}

LogOutput* Log_NewStdioOutput(const Dictionary* configuration) {
    platform::StreamOutput::Form form;
    if (!platform::FindLevel(Dict_GetString(configuration, "log.stdoutLevel", "info"), form.finestLevel)) {
        return nullptr;
    }
    form.timeStamps = Dict_GetBool(configuration, "log.useTimeStamps.stdio", false);
    form.milliseconds = Dict_GetBool(configuration, "log.useMilliseconds.stdio", false);
    const LogLock held;
    return new platform::StreamOutput(STDOUT_FILENO, LogLibrary::Instance().identifier, form);
}

bool Log_AddOutput(LogOutput* output) {
    auto& outputs = LogLibrary::Instance().outputs;
    const LogLock held;
    if (output == nullptr ||
        std::any_of(outputs.begin(), outputs.end(), [&](const auto& known) { return known.get() == output; })) {
        return false;
    }
    outputs.emplace_back(output);
    return true;
}

void Log_SetStderrLevel(int level) {
    const LogLock held;
    LogLibrary& library = LogLibrary::Instance();
    library.standardError.reset();
    if (level >= 0) {
        platform::StreamOutput::Form form;
        form.finestLevel = level;
        library.standardError = std::make_unique<platform::StreamOutput>(STDERR_FILENO, library.identifier, form);
    }
}

void Log_SetProductInfo(const char* name, const char* version, const char* build, const char* compilationOption) {
    std::string product(name);
    for (const char* part : {version, build}) {
        product.append(*part != '\0' ? " " : "").append(part);
    }
    product.append(" (").append(compilationOption).append(")");
    const LogLock held;
    LogLibrary::Instance().product = std::move(product);
}
