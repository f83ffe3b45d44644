// critical-chain: the chain of waits that ends at the last plugin to end, or at a given one.
#include <algorithm>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "analysis/Chains.h"
#include "analysis/Forecast.h"
#include "analysis/Waits.h"
#include "commands/Answers.h"
#include "commands/Commands.h"
#include "input/BootInput.h"
#include "input/Errors.h"
#include "report/Json.h"
#include "report/Text.h"

namespace lofter::analyze {

namespace {

struct Link {
    PluginIndex plugin;
    Microseconds gap;
    std::optional<BarrierIndex> via;
    std::vector<PluginIndex> filledBy;  // what ran in the gap
};

std::vector<Link> LinksOf(const Boot& boot, PluginIndex last) {
    const std::vector<std::optional<Wait>> waits = FindWaits(boot);
    std::vector<Link> links;
    std::vector<Span> gaps;
    for (const PluginIndex plugin : ChainTo(last, waits)) {
        const Microseconds start = boot.plugins[plugin].timing->start;
        if (links.empty()) {
            links.push_back({plugin, start, std::nullopt, {}});
        } else {
            links.push_back({plugin, waits[plugin]->wait, waits[plugin]->barrier, {}});
        }
        gaps.push_back({start - links.back().gap, start});
    }
    std::vector<std::vector<PluginIndex>> fillers = FindRunning(boot, gaps);
    for (std::size_t index = 0; index < links.size(); ++index) {
        links[index].filledBy = std::move(fillers[index]);
    }
    return links;
}

void WriteJson(const Boot& boot, const std::vector<Link>& links, const Chains& chains, std::ostream& output) {
    Json answer = Answer("critical-chain");
    answer["makespan_us"] = *MeasuredMakespan(boot);
    answer["floor_us"] = chains.floor;
    Json& steps = answer["chain"] = Json::array();
    for (const Link& link : links) {
        const Timing& timing = *boot.plugins[link.plugin].timing;
        steps.push_back({{"plugin", boot.plugins[link.plugin].Name()},
                         {"start_us", timing.start},
                         {"duration_us", timing.end ? Json(*timing.end - timing.start) : Json(nullptr)},
                         {"gap_us", link.gap},
                         {"via", link.via ? Json(boot.barriers[*link.via].name) : Json(nullptr)},
                         {"filled_by", NamesOf(boot, link.filledBy)}});
    }
    answer["floor_chain"] = NamesOf(boot, chains.longest);
    Print(answer, output);
}

// The first few: in a serial boot nearly everything runs in some gap.
std::string ShownFillers(const Boot& boot, const std::vector<PluginIndex>& plugins) {
    constexpr std::size_t kMost = 3;
    const std::size_t shown = std::min(plugins.size(), kMost);
    std::string text = Listed(NamesOf(boot, {plugins.begin(), plugins.begin() + static_cast<std::ptrdiff_t>(shown)}));
    return shown == plugins.size() ? text : text + " and " + std::to_string(plugins.size() - shown) + " more";
}

void WriteText(const Boot& boot, const std::vector<Link>& links, const Chains& chains, const Palette& palette,
               std::ostream& output) {
    using enum Table::Align;
    Table table({{"start", Right}, {"duration", Right}, {"gap", Right}, {"plugin"}, {"waited for"}, {"in the gap"}});
    for (const Link& link : links) {
        const Timing& timing = *boot.plugins[link.plugin].timing;
        table.Add({ShownDuration(timing.start), timing.end ? ShownDuration(*timing.end - timing.start) : "-",
                   ShownDuration(link.gap), Shown(boot.plugins[link.plugin].Name()),
                   link.via ? Shown(boot.barriers[*link.via].name) : "", ShownFillers(boot, link.filledBy)});
    }
    table.Print(output, palette);
    output << "The last plugin ended at " << ShownDuration(*MeasuredMakespan(boot)) << ". No number of threads beats "
           << ShownDuration(chains.floor) << ":\n";
    PrintWrapped(Listed(NamesOf(boot, chains.longest)), "  ", output);
}

// Of several plugins of that name the one that was through last.
PluginIndex LastOf(const Boot& boot, const std::string& name) {
    std::optional<PluginIndex> last;
    for (const PluginIndex plugin : RequirePlugins(boot, "critical-chain", name)) {
        const std::optional<Microseconds> through = ThroughAt(boot.plugins[plugin]);
        if (through && (!last || *through > *ThroughAt(boot.plugins[*last]))) {
            last = plugin;
        }
    }
    if (!last) {
        throw NoAnswerError("critical-chain: plugin \"" + Shown(name) + "\" did not run");
    }
    return *last;
}

int Run(const Question& question, const std::optional<std::string>& name) {
    RequireFormat(question, "critical-chain", {Format::Text, Format::Json});
    const Boot boot = ReadBoot(question.options.input, std::cerr);
    RequireLog(boot, "critical-chain");
    const std::vector<Link> links = LinksOf(boot, name ? LastOf(boot, *name) : *LastToEnd(boot));
    const Chains chains = FindChains(boot, MeasuredDurations(boot));
    if (question.options.output.format == Format::Json) {
        WriteJson(boot, links, chains, question.output);
    } else {
        WriteText(boot, links, chains, Palette(question.options.output.colours), question.output);
    }
    return kFine;
}

}  // namespace

Command DeclareCriticalChain(CLI::App& part) {
    const auto name = std::make_shared<std::optional<std::string>>();
    part.add_option("PLUGIN", *name, "where the chain ends (default: at the last plugin to end)")->type_name("");
    return [name](const Question& question) {
        return Run(question, *name);
    };
}

}  // namespace lofter::analyze
