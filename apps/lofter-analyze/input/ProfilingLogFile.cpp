#include "input/ProfilingLogFile.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <initializer_list>
#include <utility>

#include "input/LineWarnings.h"
#include "input/Lines.h"

namespace lofter::analyze {

namespace {

constexpr Microseconds kMicrosecondsPerSecond = 1'000'000;

// Takes a number of at least that many digits.
template <typename Number>
std::optional<Number> TakeNumber(std::string_view& text, std::ptrdiff_t fewestDigits = 1) {
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end - text.data() < fewestDigits || text.starts_with('-')) {
        return std::nullopt;
    }
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return number;
}

// Takes "2026-11-21 20:41:10.000123", in microseconds since 1970.
std::optional<Microseconds> TakeTime(std::string_view& text) {
    struct Field {
        int digits;
        int largest;
        std::string_view separator;  // behind it
    };
    constexpr Field kFields[] = {{4, 9999, "-"}, {2, 12, "-"}, {2, 31, " "},    {2, 23, ":"},
                                 {2, 59, ":"},   {2, 59, "."}, {6, 999'999, ""}};
    int values[std::size(kFields)];
    for (std::size_t index = 0; index < std::size(kFields); ++index) {
        const Field& field = kFields[index];
        std::string_view digits = text.substr(0, static_cast<std::size_t>(field.digits));
        const std::optional<int> value = TakeNumber<int>(digits, field.digits);
        if (!value || *value > field.largest) {
            return std::nullopt;
        }
        values[index] = *value;
        text.remove_prefix(static_cast<std::size_t>(field.digits));
        if (!Take(text, field.separator)) {
            return std::nullopt;
        }
    }
    const std::chrono::year_month_day date{std::chrono::year(values[0]),
                                           std::chrono::month(static_cast<unsigned>(values[1])),
                                           std::chrono::day(static_cast<unsigned>(values[2]))};
    if (!date.ok()) {
        return std::nullopt;
    }
    const Microseconds days = std::chrono::sys_days(date).time_since_epoch().count();
    const Microseconds seconds = ((days * 24 + values[3]) * 60 + values[4]) * 60 + values[5];
    return seconds * kMicrosecondsPerSecond + values[6];
}

std::optional<Microseconds> WholeTime(std::string_view text) {
    const std::optional<Microseconds> time = TakeTime(text);
    return text.empty() ? time : std::nullopt;
}

// Times since 1970; what is not later was never set.
struct PluginLine {
    int number = 0;
    std::string_view name;
    Microseconds start = 0;
    Microseconds end = 0;

    bool HasStart() const { return start > 0; }
    bool HasEnd() const { return end > 0; }
};

// "[<start> - <end>]<mark><name>"
std::optional<PluginLine> ParsePluginLine(int number, std::string_view text, std::string_view mark) {
    if (!Take(text, "[")) {
        return std::nullopt;
    }
    const std::optional<Microseconds> start = TakeTime(text);
    if (!start || !Take(text, " - ")) {
        return std::nullopt;
    }
    const std::optional<Microseconds> end = TakeTime(text);
    if (!end || !Take(text, "]") || !Take(text, mark)) {
        return std::nullopt;
    }
    return PluginLine{number, text, *start, *end};
}

// What a log says about one boot, as it stands there.
struct Section {
    bool isThere = false;
    bool isOver = false;  // a daemon run's section has begun
    std::optional<Microseconds> kernel;
    std::optional<Microseconds> start;
    std::optional<Microseconds> end;
    bool isParallel = false;
    std::vector<PluginLine> plugins;
};

bool StartsWithAny(std::string_view text, std::initializer_list<std::string_view> fronts) {
    return std::any_of(fronts.begin(), fronts.end(), [&](std::string_view front) { return text.starts_with(front); });
}

// Lines that say nothing about the boot.
bool IsOfNoConcern(int number, std::string_view text) {
    return text.empty() || ParsePluginLine(number, text, " daemon: ") ||
           StartsWithAny(text, {" Verbose: ", " Parallel: ", " Randomize: ", " Interactive Mode: ", " Random Seed: ",
                                " Start Daemon: ", " End Daemon: ", "=== Daemon configuration info ==="});
}

// False for a line that is none of a profiling log.
bool ReadLine(int number, std::string_view text, Section& section) {
    if (Take(text, "Krxkernel Initialization Time: ")) {
        section = Section();
        section.isThere = true;
        section.kernel = TakeNumber<Microseconds>(text);
        return section.kernel && text.empty();
    }
    if (const std::optional<PluginLine> plugin = ParsePluginLine(number, text, " sysboot: ")) {
        section.isThere = true;
        section.plugins.push_back(*plugin);
        return true;
    }
    if (text == "=== Lofter configuration info ===") {
        section.isThere = true;
        return true;
    }
    if (Take(text, " Start: ")) {
        section.start = WholeTime(text);
        return section.start.has_value();
    }
    if (Take(text, " End: ")) {
        section.end = WholeTime(text);
        return section.end.has_value();
    }
    section.isOver = section.isOver || text.starts_with("=== Daemon configuration info ===");
    if (text == " Parallel: 1" && !section.isOver) {
        section.isParallel = true;
    }
    return IsOfNoConcern(number, text);
}

std::optional<Microseconds> FirstStart(const std::vector<PluginLine>& plugins) {
    std::optional<Microseconds> first;
    for (const PluginLine& plugin : plugins) {
        if (plugin.HasStart() && (!first || plugin.start < *first)) {
            first = plugin.start;
        }
    }
    return first;
}

std::optional<Timing> TimingOf(const PluginLine& plugin, Microseconds origin) {
    if (!plugin.HasStart() || (plugin.HasEnd() && plugin.end < plugin.start)) {
        return std::nullopt;
    }
    Timing timing{plugin.start - origin, std::nullopt};
    if (plugin.HasEnd()) {
        timing.end = plugin.end - origin;
    }
    return timing;
}

Microseconds LastEnd(const std::vector<LoggedPlugin>& plugins) {
    Microseconds last = 0;
    for (const LoggedPlugin& plugin : plugins) {
        last = std::max(last, plugin.timing ? plugin.timing->end.value_or(plugin.timing->start) : 0);
    }
    return last;
}

void WarnOfTimes(const Section& section, const LoggedBoot& boot, const LineWarnings& warnings) {
    if (!section.start) {
        warnings.AddWhole("the log does not say when lofter began: times count from the first plugin");
    }
    if (!section.end) {
        warnings.AddWhole("the log does not say when lofter ended");
    }
    const auto early = std::find_if(boot.plugins.begin(), boot.plugins.end(), [](const LoggedPlugin& plugin) {
        return plugin.timing && plugin.timing->start < 0;
    });
    if (early != boot.plugins.end()) {
        warnings.AddWhole("the clock was set during the boot: plugin '" + early->name +
                          "' began before lofter did by these times");
    }
}

}  // namespace

std::optional<LoggedBoot> ParseProfilingLog(std::string_view content, const std::string& shownName,
                                            std::ostream& warningOutput) {
    LineWarnings warnings(shownName, warningOutput);
    Section section;
    ForEachLine(content, [&](int number, std::string_view text) {
        if (!ReadLine(number, text, section)) {
            warnings.AddLine(number, "not a line of a profiling log");
        }
    });
    if (!section.isThere) {
        return std::nullopt;
    }
    const Microseconds origin = section.start ? *section.start : FirstStart(section.plugins).value_or(0);
    LoggedBoot boot;
    for (const PluginLine& plugin : section.plugins) {
        boot.plugins.push_back({std::string(plugin.name), plugin.number, TimingOf(plugin, origin)});
    }
    boot.run = {section.kernel, section.end ? *section.end - origin : LastEnd(boot.plugins), section.isParallel};
    WarnOfTimes(section, boot, warnings);
    return boot;
}

}  // namespace lofter::analyze
