// blame: which plugins took how long, and what each had waited for.
#include <algorithm>
#include <iostream>
#include <limits>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "analysis/Chains.h"
#include "analysis/Waits.h"
#include "commands/Answers.h"
#include "commands/Commands.h"
#include "input/BootInput.h"
#include "input/Errors.h"
#include "report/Json.h"
#include "report/Text.h"

namespace lofter::analyze {

namespace {

struct Blame {
    PluginIndex plugin;
    std::optional<Microseconds> start;
    std::optional<Microseconds> duration;
    std::optional<Wait> wait;
    std::optional<Microseconds> slack;
    bool isCritical;
};

// Slowest first, then those that ended at no time, in the order of their starts.
bool ComesBefore(const Blame& left, const Blame& right) {
    static constexpr Microseconds kLast = std::numeric_limits<Microseconds>::max();
    const auto key = [](const Blame& blame) {
        return std::tuple(-blame.duration.value_or(-1), blame.start.value_or(kLast), blame.plugin);
    };
    return key(left) < key(right);
}

std::vector<Blame> BlamesOf(const Boot& boot) {
    const std::vector<std::optional<Wait>> waits = FindWaits(boot);
    const Chains chains = FindChains(boot, MeasuredDurations(boot));
    std::vector<bool> isCritical(boot.plugins.size(), false);
    for (const PluginIndex plugin : ChainTo(*LastToEnd(boot), waits)) {
        isCritical[plugin] = true;
    }
    std::vector<Blame> blames;
    for (PluginIndex index = 0; index < boot.plugins.size(); ++index) {
        const BootPlugin& plugin = boot.plugins[index];
        if (!plugin.Runs()) {
            continue;
        }
        Blame& blame = blames.emplace_back(Blame{index, {}, {}, waits[index], {}, isCritical[index]});
        if (plugin.timing) {
            blame.start = plugin.timing->start;
        }
        if (plugin.HasRun()) {
            blame.duration = *plugin.timing->end - plugin.timing->start;
            blame.slack = chains.slack[index];
        }
    }
    std::sort(blames.begin(), blames.end(), ComesBefore);
    return blames;
}

void WriteJson(const Boot& boot, const std::vector<Blame>& blames, std::ostream& output) {
    Json answer = Answer("blame");
    Json& plugins = answer["plugins"] = Json::array();
    for (const Blame& blame : blames) {
        const std::optional<Wait>& wait = blame.wait;
        const bool hasWaited = wait && wait->barrier;
        plugins.push_back({{"plugin", boot.plugins[blame.plugin].Name()},
                           {"start_us", OrNull(blame.start)},
                           {"duration_us", OrNull(blame.duration)},
                           {"ready_us", wait ? Json(wait->ready) : Json(nullptr)},
                           {"wait_us", wait ? Json(wait->wait) : Json(nullptr)},
                           {"waited_for", hasWaited ? Json(boot.barriers[*wait->barrier].name) : Json(nullptr)},
                           {"opened_by", hasWaited ? Json(boot.plugins[*wait->opener].Name()) : Json(nullptr)},
                           {"slack_us", OrNull(blame.slack)},
                           {"critical", blame.isCritical},
                           {"ran", boot.plugins[blame.plugin].HasRun()}});
    }
    Print(answer, output);
}

std::string WaitedFor(const Boot& boot, const Blame& blame) {
    if (!blame.start) {
        return "(did not run)";
    }
    std::string text;
    if (blame.wait && blame.wait->barrier) {
        text =
            Shown(boot.barriers[*blame.wait->barrier].name) + " by " + Shown(boot.plugins[*blame.wait->opener].Name());
    }
    return blame.duration ? text : text + (text.empty() ? "" : " ") + "(skipped)";
}

void WriteText(const Boot& boot, const std::vector<Blame>& blames, const Palette& palette, std::ostream& output) {
    using enum Table::Align;
    Table table(
        {{"duration", Right}, {"start", Right}, {"wait", Right}, {"slack", Right}, {""}, {"plugin"}, {"waited for"}});
    for (const Blame& blame : blames) {
        std::optional<Microseconds> wait;
        if (blame.wait) {
            wait = blame.wait->wait;
        }
        table.Add({ShownOrDash(blame.duration), ShownOrDash(blame.start), ShownOrDash(wait), ShownOrDash(blame.slack),
                   blame.isCritical ? "*" : "", Shown(boot.plugins[blame.plugin].Name()), WaitedFor(boot, blame)},
                  blame.isCritical ? Colour::Red : Colour::None);
    }
    table.Print(output, palette);
    output << "* on the critical chain; wait: for a free thread, after what it waited for\n";
}

int Run(const Question& question) {
    RequireFormat(question, "blame", {Format::Text, Format::Json});
    const Boot boot = ReadBoot(question.options.input, std::cerr);
    RequireLog(boot, "blame");
    const std::vector<Blame> blames = BlamesOf(boot);
    if (question.options.output.format == Format::Json) {
        WriteJson(boot, blames, question.output);
    } else {
        WriteText(boot, blames, Palette(question.options.output.colours), question.output);
    }
    return kFine;
}

}  // namespace

Command DeclareBlame(CLI::App&) {
    return Run;
}

}  // namespace lofter::analyze
