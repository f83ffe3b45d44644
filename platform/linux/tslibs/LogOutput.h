// The inside of the logging library: what an output is, and the operations that only this layer and tests need.
//
// One lock guards the library and everything its outputs hold. fork() takes it, so that a child finds the library at
// rest and can log at once. Neither the library nor an output on the path of a message may therefore take another lock,
// allocate for a message of ordinary length, or set up on first use what needs either.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

struct Dictionary;

// One destination of log messages.
struct LogOutput {
    virtual ~LogOutput() = default;

    // Takes one message without the line end that is its own, of whatever level: the output decides what it lets
    // through. Called with the library's lock held; must not throw, log or fork.
    virtual void Write(int level, std::string_view message) = 0;

    // This process has just been forked: what the output has opened may be closed, and its numbers be used for
    // something else, by whoever makes the child what it is to be. Called with the lock held, before anything else is.
    virtual void AfterFork() {}

    // Takes a message that needs someone's action at once. Outputs without a notion of that ignore it.
    virtual void Alert(std::string_view /*message*/) {}
};

namespace platform {

// Messages up to so many bytes are of ordinary length.
inline constexpr std::size_t kOrdinaryLength = 1024;

inline constexpr int kErrorLevel = 110;
inline constexpr int kWarningLevel = 115;
inline constexpr int kInfoLevel = 125;

// The bound of a level name: "error", "warning" or "info". False, and nothing stored, for any other name.
bool FindLevel(std::string_view name, int& level);

// Takes an output out of the library and hands it back; null when the library does not hold it.
std::unique_ptr<LogOutput> RemoveLogOutput(const LogOutput* output);

// Log_Level for a list of arguments.
void LogFormatted(int level, const char* format, va_list arguments) __attribute__((format(printf, 2, 0)));

// Hands a message of LOG_ALERT urgency to the outputs.
void LogAlert(std::string_view message);

// What Log_InitWithSyslogInt does, for the daemon at that path. A further call replaces the output of the one before.
bool InitializeSyslog(const char* socketPath, const Dictionary* configuration);

// The product line that a panic adds; empty until product information was given.
std::string LoggedProduct();

// Scoped hold of the library's lock, for reading what an output has collected while other threads log.
class LogLock {
  public:
    LogLock();
    ~LogLock();
    LogLock(const LogLock&) = delete;
    LogLock& operator=(const LogLock&) = delete;
};

}  // namespace platform
