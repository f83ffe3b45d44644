// Time stamps of log lines, rendered into a fixed buffer.
//
// Computed from the calendar arithmetic of the standard library: gmtime_r and localtime_r take a lock of the C library,
// which a child of a threaded process may find held for ever.
#pragma once

#include <array>
#include <chrono>
#include <string_view>

namespace platform {

class TimeStamp {
  public:
    using Clock = std::chrono::system_clock;

    // "2026-11-21 01:39:08.123", in universal time.
    static TimeStamp Iso(Clock::time_point time, bool milliseconds);

    // "Nov  1 01:39:08", the form of syslog records, of a time that has been shifted to the local zone.
    static TimeStamp Syslog(Clock::time_point localTime);

    std::string_view Text() const { return {text.data(), length}; }

  private:
    std::array<char, 64> text{};
    std::size_t length = 0;
};

// What to add to universal time for local time, at the given moment. Zero when the zone cannot be read. Not thread-safe
// beside changes of the environment.
std::chrono::seconds LocalOffset(TimeStamp::Clock::time_point time);

}  // namespace platform
