// summary: where the time of a boot went, in a few lines.
#include <algorithm>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "analysis/Finding.h"
#include "analysis/GraphFindings.h"
#include "analysis/Waits.h"
#include "commands/Answers.h"
#include "commands/Commands.h"
#include "input/BootInput.h"
#include "input/Errors.h"
#include "report/Json.h"
#include "report/Text.h"

namespace lofter::analyze {

namespace {

struct Summary {
    // Where the time went: until lofter began, until the first plugin began, until the last one ended, until the end.
    std::optional<Microseconds> kernel;
    std::optional<Microseconds> before;
    std::optional<Microseconds> plugins;
    std::optional<Microseconds> after;
    std::size_t keptOut = 0;
    std::size_t ran = 0;
    std::size_t didNotRun = 0;
    std::vector<PluginIndex> slowest;
    std::vector<PluginIndex> chain;
};

Microseconds DurationOf(const BootPlugin& plugin) {
    return *plugin.timing->end - plugin.timing->start;
}

void AddTimes(const Boot& boot, Summary& summary) {
    summary.kernel = boot.run->kernel;
    const std::optional<PluginIndex> last = LastToEnd(boot);
    if (!last) {
        return;
    }
    const Microseconds end = *boot.plugins[*last].timing->end;
    Microseconds start = boot.plugins[*last].timing->start;
    for (const BootPlugin& plugin : boot.plugins) {
        start = plugin.timing ? std::min(start, plugin.timing->start) : start;
    }
    summary.before = start;
    summary.plugins = end - start;
    summary.after = boot.run->end - end;
    summary.chain = ChainTo(*last, FindWaits(boot));
}

void AddPlugins(const Boot& boot, Summary& summary) {
    constexpr std::size_t kSlowest = 5;
    for (PluginIndex plugin = 0; plugin < boot.plugins.size(); ++plugin) {
        if (!boot.plugins[plugin].Runs()) {
            ++summary.keptOut;
        } else if (boot.plugins[plugin].HasRun()) {
            ++summary.ran;
            summary.slowest.push_back(plugin);
        } else {
            ++summary.didNotRun;
        }
    }
    std::stable_sort(summary.slowest.begin(), summary.slowest.end(), [&](PluginIndex left, PluginIndex right) {
        return DurationOf(boot.plugins[left]) > DurationOf(boot.plugins[right]);
    });
    summary.slowest.resize(std::min(summary.slowest.size(), kSlowest));
}

Summary Summarise(const Boot& boot) {
    Summary summary;
    AddPlugins(boot, summary);
    if (boot.run) {
        AddTimes(boot, summary);
    }
    return summary;
}

void WriteJson(const Boot& boot, const Summary& summary, const FindingCounts& findings, std::ostream& output) {
    Json answer = Answer("summary");
    answer["kernel_us"] = OrNull(summary.kernel);
    answer["before_us"] = OrNull(summary.before);
    answer["plugins_us"] = OrNull(summary.plugins);
    answer["after_us"] = OrNull(summary.after);
    answer["ran"] = boot.run ? Json(summary.ran) : Json(nullptr);
    answer["did_not_run"] = boot.run ? Json(summary.didNotRun) : Json(nullptr);
    Json& slowest = answer["slowest"] = Json::array();
    for (const PluginIndex plugin : summary.slowest) {
        slowest.push_back({{"plugin", boot.plugins[plugin].Name()}, {"duration_us", DurationOf(boot.plugins[plugin])}});
    }
    answer["chain"] = NamesOf(boot, summary.chain);
    answer["findings"] = {{"errors", findings.errors}, {"warnings", findings.warnings}, {"notes", findings.notes}};
    Print(answer, output);
}

// "a -> b -> c", on one line: of a long chain without the names in the middle.
std::string ShownChain(const std::vector<std::string>& names, std::size_t width) {
    constexpr std::string_view kArrow = " -> ";
    std::vector<std::string> shown;
    std::size_t length = 0;
    for (const std::string& name : names) {
        length += shown.emplace_back(Shown(name)).size() + kArrow.size();
    }
    std::size_t leftOut = 0;  // behind the first
    const auto hint = [&] {
        return '(' + std::to_string(leftOut) + " more)";
    };
    const auto isTooLong = [&] {
        return length + (leftOut > 0 ? hint().size() : 0) > width;
    };
    while (isTooLong() && leftOut + 2 < shown.size()) {
        length -= shown[++leftOut].size() + kArrow.size();
    }
    std::string text;
    for (std::size_t index = 0; index < shown.size(); index += index == 0 ? leftOut + 1 : 1) {
        text += (index == 0 ? "" : std::string(kArrow)) + shown[index];
        if (index == 0 && leftOut > 0) {
            text += std::string(kArrow) + hint();
        }
    }
    return text;
}

void WriteTimes(const Boot& boot, const Summary& summary, const Palette& palette, std::ostream& output) {
    using enum Table::Align;
    if (!boot.run) {
        output << "There is no profiling log of this boot.\n";
        return;
    }
    Table times({{"time", Right}, {"where it went"}});
    times.Add({ShownOrDash(summary.kernel), "kernel, until lofter began"});
    times.Add({ShownOrDash(summary.before), "lofter, before the first plugin"});
    times.Add({ShownOrDash(summary.plugins), "plugins"});
    times.Add({ShownOrDash(summary.after), "lofter, after the last plugin"});
    times.Print(output, palette);
    if (summary.slowest.empty()) {
        return;
    }
    output << '\n';
    Table slowest({{"time", Right}, {"slowest plugins"}});
    for (const PluginIndex plugin : summary.slowest) {
        slowest.Add({ShownDuration(DurationOf(boot.plugins[plugin])), Shown(boot.plugins[plugin].Name())});
    }
    slowest.Print(output, palette);
}

void WriteText(const Boot& boot, const Summary& summary, const FindingCounts& findings, const Palette& palette,
               std::ostream& output) {
    WriteTimes(boot, summary, palette, output);
    output << '\n';
    if (!summary.chain.empty()) {
        constexpr std::string_view kTitle = "critical chain: ";
        constexpr std::size_t kWidth = 80 - kTitle.size();
        output << kTitle << ShownChain(NamesOf(boot, summary.chain), kWidth) << '\n';
    }
    output << "plugins: ";
    if (boot.run) {
        output << summary.ran << " ran, " << summary.didNotRun << " did not run";
    } else {
        output << summary.didNotRun << " would run";
    }
    output << ", " << summary.keptOut << " kept out\n"
           << "findings: " << Counted(findings.errors, "error") << ", " << Counted(findings.warnings, "warning") << ", "
           << Counted(findings.notes, "note") << '\n';
}

// Those of the plugins as they are read, without what a log adds.
FindingCounts CountFindings(const InputPlugins& input, bool isDump) {
    std::vector<Finding> findings =
        FindInGraph(MakeBoot(input.plugins, std::nullopt), isDump ? GraphSource::Dump : GraphSource::Host);
    findings.insert(findings.end(), input.findings.begin(), input.findings.end());
    return Count(Sorted(std::move(findings)));
}

int Run(const Question& question) {
    RequireFormat(question, "summary", {Format::Text, Format::Json});
    const InputOptions& options = question.options.input;
    InputPlugins input = ReadPlugins(options, std::cerr);
    const FindingCounts findings = CountFindings(input, options.graph.has_value());
    const Boot boot = WithLog(std::move(input.plugins), options, std::cerr);
    const Summary summary = Summarise(boot);
    if (question.options.output.format == Format::Json) {
        WriteJson(boot, summary, findings, question.output);
    } else {
        WriteText(boot, summary, findings, Palette(question.options.output.colours), question.output);
    }
    return kFine;
}

}  // namespace

Command DeclareSummary(CLI::App&) {
    return Run;
}

}  // namespace lofter::analyze
