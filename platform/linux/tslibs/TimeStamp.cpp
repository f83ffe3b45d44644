#include "tslibs/TimeStamp.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include <sys/stat.h>

namespace platform {

namespace {

struct CalendarTime {
    explicit CalendarTime(TimeStamp::Clock::time_point time)
        : day(std::chrono::floor<std::chrono::days>(time)),
          date(day),
          clock(std::chrono::floor<std::chrono::milliseconds>(time - day)) {}

    std::chrono::sys_days day;
    std::chrono::year_month_day date;
    std::chrono::hh_mm_ss<std::chrono::milliseconds> clock;

    int Year() const { return static_cast<int>(date.year()); }
    unsigned Month() const { return static_cast<unsigned>(date.month()); }
    unsigned Day() const { return static_cast<unsigned>(date.day()); }
    int Hours() const { return static_cast<int>(clock.hours().count()); }
    int Minutes() const { return static_cast<int>(clock.minutes().count()); }
    int Seconds() const { return static_cast<int>(clock.seconds().count()); }
    int Milliseconds() const { return static_cast<int>(clock.subseconds().count()); }
};

}  // namespace

TimeStamp TimeStamp::Iso(Clock::time_point time, bool milliseconds) {
    const CalendarTime now(time);
    TimeStamp stamp;
    int length = std::snprintf(stamp.text.data(), stamp.text.size(), "%04d-%02u-%02u %02d:%02d:%02d", now.Year(),
                               now.Month(), now.Day(), now.Hours(), now.Minutes(), now.Seconds());
    if (milliseconds) {
        length += std::snprintf(stamp.text.data() + length, stamp.text.size() - static_cast<std::size_t>(length),
                                ".%03d", now.Milliseconds());
    }
    stamp.length = static_cast<std::size_t>(length);
    return stamp;
}

TimeStamp TimeStamp::Syslog(Clock::time_point localTime) {
    // Fixed names: the form of the record does not follow the locale.
    static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const CalendarTime now(localTime);
    TimeStamp stamp;
    const int length = std::snprintf(stamp.text.data(), stamp.text.size(), "%s %2u %02d:%02d:%02d",
                                     kMonths[now.Month() - 1], now.Day(), now.Hours(), now.Minutes(), now.Seconds());
    stamp.length = static_cast<std::size_t>(length);
    return stamp;
}

namespace {

// Whether the system reads the local zone from something that is no file: a pipe there would never end.
bool HasStrangeZoneFile() {
    struct stat status {};
    return std::getenv("TZ") == nullptr && ::stat("/etc/localtime", &status) == 0 && !S_ISREG(status.st_mode);
}

}  // namespace

std::chrono::seconds LocalOffset(TimeStamp::Clock::time_point time) {
    const std::time_t seconds = TimeStamp::Clock::to_time_t(time);
    std::tm local{};
    if (HasStrangeZoneFile() || localtime_r(&seconds, &local) == nullptr) {
        return std::chrono::seconds(0);
    }
    return std::chrono::seconds(local.tm_gmtoff);
}

}  // namespace platform
