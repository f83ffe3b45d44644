#include "tslibs/SyslogOutput.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include <syslog.h>

#include "tslibs/TimeStamp.h"

namespace platform {

namespace {

constexpr std::size_t kLongestIdentifier = 64;

int Severity(int level) {
    if (level <= kErrorLevel) {
        return LOG_ERR;
    }
    return level <= kWarningLevel ? LOG_WARNING : LOG_INFO;
}

}  // namespace

SyslogOutput::SyslogOutput(std::string socketPath, const std::string& name, int finest)
    : client(std::move(socketPath)),
      identifier(name.substr(0, kLongestIdentifier)),
      finestLevel(finest),
      localOffset(LocalOffset(TimeStamp::Clock::now())) {}

void SyslogOutput::Write(int level, std::string_view message) {
    if (level <= finestLevel) {
        Send(Severity(level), message);
    }
}

void SyslogOutput::Alert(std::string_view message) {
    Send(LOG_ALERT, message);
}

void SyslogOutput::Send(int severity, std::string_view message) {
    message.remove_suffix(message.size() - (message.find_last_not_of('\n') + 1));
    const TimeStamp stamp = TimeStamp::Syslog(TimeStamp::Clock::now() + localOffset);
    std::array<char, 2 * kLongestIdentifier> head{};
    const int length = std::snprintf(head.data(), head.size(), "<%d>%.*s %s: ", LOG_DAEMON | severity,
                                     static_cast<int>(stamp.Text().size()), stamp.Text().data(), identifier.c_str());
    client.Send({head.data(), std::min(static_cast<std::size_t>(length), head.size() - 1)}, message);
}

}  // namespace platform
