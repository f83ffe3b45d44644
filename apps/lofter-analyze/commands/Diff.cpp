// diff: what became slower or faster from some boots to others.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "analysis/Differences.h"
#include "commands/Answers.h"
#include "commands/Commands.h"
#include "input/BootInput.h"
#include "input/Durations.h"
#include "input/Errors.h"
#include "report/Json.h"
#include "report/Text.h"

namespace lofter::analyze {

namespace {

struct DiffOptions {
    std::vector<std::string> files;
    std::optional<std::size_t> firstNew;  // of the files, behind "--"
    std::string threshold;
};

std::optional<double> ParsePercent(std::string_view text) {
    text.remove_suffix(text.ends_with('%') ? 1 : 0);
    double percent = 0;
    const auto [end, error] =
        std::from_chars(text.data(), text.data() + text.size(), percent, std::chars_format::fixed);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(percent) || std::signbit(percent)) {
        return std::nullopt;
    }
    return percent;
}

Threshold ParseThreshold(const std::string& text) {
    const std::size_t comma = std::min(text.find(','), text.size());
    const std::optional<double> percent = ParsePercent(std::string_view(text).substr(0, comma));
    const std::optional<Microseconds> time =
        ParseDuration(std::string_view(text).substr(std::min(comma + 1, text.size())));
    if (!percent || !time) {
        throw UsageError("diff: --threshold takes a percentage, a comma and a time, such as 20%,10ms: " + Shown(text));
    }
    return {*percent, *time};
}

BootDurations DurationsOf(const LoggedBoot& log) {
    BootDurations durations;
    for (const LoggedPlugin& plugin : log.plugins) {
        if (plugin.timing && plugin.timing->end) {
            durations.plugins.push_back({plugin.name, *plugin.timing->end - plugin.timing->start});
            durations.length = std::max(durations.length.value_or(*plugin.timing->end), *plugin.timing->end);
        }
    }
    return durations;
}

std::vector<BootDurations> ReadLogs(const std::vector<std::string>& files) {
    std::vector<BootDurations> boots;
    for (const std::string& file : files) {
        const std::optional<LoggedBoot> log = ReadGivenLog(file, std::cerr);
        if (!log) {
            throw NoAnswerError("diff: " + Shown(ShownInput(file)) + " holds no boot");
        }
        boots.push_back(DurationsOf(*log));
    }
    return boots;
}

const char* NameOf(Change change) {
    switch (change) {
        case Change::Slower:
            return "slower";
        case Change::Faster:
            return "faster";
        case Change::New:
            return "new";
        case Change::Gone:
            return "gone";
        case Change::Same:
            break;
    }
    return "same";
}

Colour ColourOf(Change change) {
    switch (change) {
        case Change::Slower:
            return Colour::Red;
        case Change::Faster:
            return Colour::Green;
        case Change::New:
        case Change::Gone:
            return Colour::Blue;
        case Change::Same:
            break;
    }
    return Colour::None;
}

void WriteJson(const Differences& differences, std::ostream& output) {
    Json answer = Answer("diff");
    answer["boot"] = {{"old_us", OrNull(differences.boot.before)},
                      {"new_us", OrNull(differences.boot.after)},
                      {"status", NameOf(differences.boot.change)}};
    Json& plugins = answer["plugins"] = Json::array();
    for (const auto& [name, difference] : differences.plugins) {
        plugins.push_back({{"plugin", name},
                           {"old_us", OrNull(difference.before)},
                           {"new_us", OrNull(difference.after)},
                           {"status", NameOf(difference.change)}});
    }
    answer["regressed"] = differences.HasRegressed();
    Print(answer, output);
}

// "+12ms", and by how many percent
std::pair<std::string, std::string> Growth(const Difference& difference) {
    if (!difference.before || !difference.after || *difference.before == *difference.after) {
        return {};
    }
    const Microseconds growth = *difference.after - *difference.before;
    const std::string sign = growth > 0 ? "+" : "";
    if (*difference.before <= 0) {
        return {sign + ShownDuration(growth), ""};
    }
    const double percent = 100.0 * static_cast<double>(growth) / static_cast<double>(*difference.before);
    return {sign + ShownDuration(growth), sign + std::to_string(std::llround(percent)) + '%'};
}

void WriteText(const Differences& differences, const Palette& palette, std::ostream& output) {
    using enum Table::Align;
    Table table({{""}, {"old", Right}, {"new", Right}, {"change", Right}, {"", Right}, {"plugin"}});
    const auto add = [&](const std::string& name, const Difference& difference) {
        const auto [growth, percent] = Growth(difference);
        table.Add({NameOf(difference.change), ShownOrDash(difference.before), ShownOrDash(difference.after), growth,
                   percent, name},
                  ColourOf(difference.change));
    };
    for (const auto& [name, difference] : differences.plugins) {
        add(Shown(name), difference);
    }
    add("(the boot)", differences.boot);
    table.Print(output, palette);
}

int Run(const Question& question, const DiffOptions& options) {
    RequireFormat(question, "diff", {Format::Text, Format::Json});
    const std::size_t firstNew = options.firstNew.value_or(options.files.size());
    const auto middle = options.files.begin() + static_cast<std::ptrdiff_t>(firstNew);
    const std::vector<std::string> before(options.files.begin(), middle);
    const std::vector<std::string> after(middle, options.files.end());
    if (before.empty() || after.empty()) {
        throw UsageError("diff: logs stand before and behind \"--\": diff OLD... -- NEW...");
    }
    const Threshold threshold = options.threshold.empty() ? Threshold() : ParseThreshold(options.threshold);
    const std::vector<BootDurations> old = ReadLogs(before);
    const Differences differences = Compare(old, ReadLogs(after), threshold);
    if (question.options.output.format == Format::Json) {
        WriteJson(differences, question.output);
    } else {
        WriteText(differences, Palette(question.options.output.colours), question.output);
    }
    return differences.HasRegressed() ? kFindings : kFine;
}

// All logs are values of the first argument, since the parser ends no list at "--". It is noticed there, however: by
// the first value that comes behind it. The second argument, which gets none, keeps the parser from ending the command.
void DeclareLogs(CLI::App& part, DiffOptions& options) {
    CLI::Option* const logs =
        part.add_option("OLD", options.files, "profiling logs; - is standard input")->type_name("LOG");
    part.validate_positionals();
    logs->check(CLI::Validator(
        [&part, &options, logs](const std::string&) {
            if (!options.firstNew && !part.remaining().empty()) {
                options.firstNew = logs->count();
            }
            return std::string();
        },
        ""));
    part.add_option("NEW", "profiling logs, behind \"--\"")->type_name("LOG ...")->expected(1);
}

}  // namespace

Command DeclareDiff(CLI::App& part) {
    const auto options = std::make_shared<DiffOptions>();
    DeclareLogs(part, *options);
    part.add_option("--threshold", options->threshold, "slower or faster means at least by both (default: 20%,10ms)")
        ->type_name("PERCENT,TIME");
    return [options](const Question& question) {
        return Run(question, *options);
    };
}

}  // namespace lofter::analyze
