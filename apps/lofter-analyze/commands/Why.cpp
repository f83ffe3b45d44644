// why: whether a plugin runs, whom it waits for and who waits for it; or how one comes to wait for another.
#include <algorithm>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "analysis/Chains.h"
#include "analysis/Cycles.h"
#include "analysis/Reach.h"
#include "analysis/Ways.h"
#include "commands/Answers.h"
#include "commands/Commands.h"
#include "input/BootInput.h"
#include "input/Errors.h"
#include "report/Json.h"
#include "report/Text.h"

namespace lofter::analyze {

namespace {

constexpr std::size_t kMostWays = 100;

struct Neighbours {
    std::vector<std::string> direct;
    std::vector<std::string> all;
};

std::vector<std::string> SortedNames(const Boot& boot, const PluginSet& plugins) {
    std::vector<std::string> names;
    for (PluginIndex index = 0; index < plugins.size(); ++index) {
        if (plugins[index] && boot.plugins[index].Runs()) {
            names.push_back(boot.plugins[index].Name());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Those that run, as if the plugin itself did. It is among them when a loop leads back to it.
Neighbours NeighboursOf(const Boot& boot, PluginIndex plugin, Direction direction) {
    const std::vector<BarrierIndex>& barriers =
        direction == Direction::Before ? boot.plugins[plugin].requiredBarriers : boot.plugins[plugin].providedBarriers;
    PluginSet direct(boot.plugins.size(), false);
    std::vector<PluginIndex> nearest;
    for (const BarrierIndex barrier : barriers) {
        const BootBarrier& between = boot.barriers[barrier];
        for (const PluginIndex other : direction == Direction::Before ? between.providers : between.requirers) {
            if (boot.plugins[other].Runs() && !direct[other]) {
                direct[other] = true;
                nearest.push_back(other);
            }
        }
    }
    return {SortedNames(boot, direct), SortedNames(boot, Reach(boot, nearest, direction, kAnyDistance))};
}

// Why a plugin never starts although it is not kept out; nothing when it does start.
std::optional<std::string> CycleBefore(const Boot& boot, PluginIndex plugin) {
    if (LongestBefore(boot, std::vector<Microseconds>(boot.plugins.size(), 1))[plugin]) {
        return std::nullopt;
    }
    const PluginSet before = Reach(boot, {plugin}, Direction::Before, kAnyDistance);
    for (const Cycle& cycle : FindCycles(boot)) {
        if (before[cycle.front().plugin]) {
            return "waits for ever: " + ShownCycle(boot, cycle);
        }
    }
    return std::nullopt;
}

struct Answers {
    PluginIndex plugin;
    std::optional<std::string> reason;  // why it does not run
    std::vector<std::string> barriers;
    Neighbours before;
    Neighbours after;
};

Answers AnswersFor(const Boot& boot, PluginIndex plugin) {
    const std::string& keptOutBy = boot.plugins[plugin].keptOutBy;
    return {plugin, keptOutBy.empty() ? CycleBefore(boot, plugin) : keptOutBy, RequiredBarriers(boot, plugin),
            NeighboursOf(boot, plugin, Direction::Before), NeighboursOf(boot, plugin, Direction::After)};
}

std::vector<std::string> NamesOnWay(const Boot& boot, const Way& way, PluginIndex end) {
    std::vector<std::string> names;
    for (const WayStep& step : way) {
        names.push_back(boot.plugins[step.plugin].Name());
        names.push_back(boot.barriers[step.barrier].name);
    }
    names.push_back(boot.plugins[end].Name());
    return names;
}

void WriteJson(const Boot& boot, const Answers& answers, const std::optional<PluginIndex>& end, std::ostream& output) {
    Json answer = Answer("why");
    answer["plugin"] = boot.plugins[answers.plugin].Name();
    answer["runs"] = !answers.reason;
    answer["reason"] = OrNull(answers.reason);
    answer["waits_for"] = answers.barriers;
    answer["waits_for_all"] = answers.before.all;
    answer["waited_by"] = answers.after.direct;
    answer["waited_by_all"] = answers.after.all;
    if (end) {
        const Ways ways = FindWays(boot, answers.plugin, *end, kMostWays);
        answer["to"] = boot.plugins[*end].Name();
        answer["ordered"] = !ways.shortest.empty();
        Json& list = answer["ways"] = Json::array();
        for (const Way& way : ways.shortest) {
            list.push_back(NamesOnWay(boot, way, *end));
        }
        if (ways.hasMore) {
            answer["more"] = true;
        }
    }
    Print(answer, output);
}

std::string OrNobody(const std::vector<std::string>& names) {
    return names.empty() ? "nobody" : Listed(names);
}

// "disk (provided by hw), link (provided by nobody)"
std::string ShownBarriers(const Boot& boot, const Answers& answers) {
    std::string text;
    std::vector<BarrierIndex> barriers = boot.plugins[answers.plugin].requiredBarriers;
    for (const std::string& name : answers.barriers) {
        const auto barrier = std::find_if(barriers.begin(), barriers.end(),
                                          [&](BarrierIndex index) { return boot.barriers[index].name == name; });
        text += (text.empty() ? "" : ", ") + Shown(name) + " (provided by " +
                OrNobody(NamesOf(boot, boot.barriers[*barrier].providers)) + ')';
    }
    return text.empty() ? "nothing" : text;
}

void WriteText(const Boot& boot, const Answers& answers, const Palette& palette, std::ostream& output) {
    Table table({{"plugin"}, {Shown(boot.plugins[answers.plugin].Name())}});
    if (answers.reason) {
        table.Add({"runs", "no: " + Shown(*answers.reason)}, Colour::Red);
    } else {
        table.Add({"runs", "yes"});
    }
    table.Add({"waits for", ShownBarriers(boot, answers)});
    table.Add({"in all for", OrNobody(answers.before.all)});
    table.Add({"holds up", OrNobody(answers.after.direct)});
    table.Add({"in all", OrNobody(answers.after.all)});
    table.Print(output, palette);
}

void WriteWays(const Boot& boot, PluginIndex from, PluginIndex to, std::ostream& output) {
    const std::string first = Shown(boot.plugins[from].Name());
    const std::string second = Shown(boot.plugins[to].Name());
    const Ways ways = FindWays(boot, from, to, kMostWays);
    if (ways.shortest.empty()) {
        output << second << " does not wait for " << first;
        for (const PluginIndex plugin : {from, to}) {
            if (!boot.plugins[plugin].Runs()) {
                output << "; " << Shown(boot.plugins[plugin].Name())
                       << " does not run: " << Shown(boot.plugins[plugin].keptOutBy);
            }
        }
        const bool isOtherWay = !FindWays(boot, to, from, 1).shortest.empty();
        output << (isOtherWay ? "; " + first + " waits for " + second : "") << '\n';
        return;
    }
    output << second << " waits for " << first << ":\n";
    for (const Way& way : ways.shortest) {
        std::string text;
        for (const WayStep& step : way) {
            text += Shown(boot.plugins[step.plugin].Name()) + " -[" + Shown(boot.barriers[step.barrier].name) + "]-> ";
        }
        PrintWrapped(text + second, "  ", output);
    }
    output << (ways.hasMore ? "  and more\n" : "");
}

// Of several plugins of that name the first that runs, or the first.
PluginIndex PluginMeant(const Boot& boot, const std::string& name) {
    const std::vector<PluginIndex> plugins = RequirePlugins(boot, "why", name);
    const auto running =
        std::find_if(plugins.begin(), plugins.end(), [&](PluginIndex plugin) { return boot.plugins[plugin].Runs(); });
    return running == plugins.end() ? plugins.front() : *running;
}

struct WhyArguments {
    std::string plugin;
    std::optional<std::string> end;
};

int Run(const Question& question, const WhyArguments& arguments) {
    RequireFormat(question, "why", {Format::Text, Format::Json});
    const Boot boot = ReadBoot(question.options.input, std::cerr);
    const PluginIndex plugin = PluginMeant(boot, arguments.plugin);
    std::optional<PluginIndex> end;
    if (arguments.end) {
        end = PluginMeant(boot, *arguments.end);
    }
    if (question.options.output.format == Format::Json) {
        WriteJson(boot, AnswersFor(boot, plugin), end, question.output);
    } else if (end) {
        WriteWays(boot, plugin, *end, question.output);
    } else {
        WriteText(boot, AnswersFor(boot, plugin), Palette(question.options.output.colours), question.output);
    }
    return kFine;
}

}  // namespace

Command DeclareWhy(CLI::App& part) {
    const auto arguments = std::make_shared<WhyArguments>();
    part.add_option("A", arguments->plugin, "the plugin")->required()->type_name("");
    part.add_option("B", arguments->end, "how this one comes to wait for it")->type_name("");
    return [arguments](const Question& question) {
        return Run(question, *arguments);
    };
}

}  // namespace lofter::analyze
