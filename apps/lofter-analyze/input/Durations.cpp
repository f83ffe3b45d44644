#include "input/Durations.h"

#include <charconv>
#include <map>
#include <system_error>

namespace lofter::analyze {

std::optional<Microseconds> ParseDuration(std::string_view text) {
    constexpr Microseconds kLongest = 1'000'000'000'000'000;
    static const std::map<std::string_view, Microseconds> kUnits{{"us", 1}, {"ms", 1'000}, {"s", 1'000'000}};
    Microseconds number = 0;
    const auto [rest, problem] = std::from_chars(text.data(), text.data() + text.size(), number);
    const auto unit = kUnits.find(text.substr(static_cast<std::size_t>(rest - text.data())));
    if (problem != std::errc{} || unit == kUnits.end() || number < 0 || number > kLongest / unit->second) {
        return std::nullopt;
    }
    return number * unit->second;
}

}  // namespace lofter::analyze
