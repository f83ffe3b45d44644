// whatif: how long the boot would take if something were different, and what would help most.
#include <cstdio>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "analysis/Chains.h"
#include "analysis/Changes.h"
#include "analysis/Forecast.h"
#include "analysis/Gains.h"
#include "analysis/Reach.h"
#include "commands/Answers.h"
#include "commands/Commands.h"
#include "input/BootInput.h"
#include "input/Durations.h"
#include "input/Errors.h"
#include "report/Json.h"
#include "report/Text.h"

namespace lofter::analyze {

namespace {

struct WhatIfOptions {
    std::optional<std::size_t> threads;
    std::vector<std::string> without;
    std::vector<std::string> set;
    std::vector<std::string> add;
    std::vector<std::string> drop;
    bool rank = false;
};

std::vector<PluginIndex> Named(const Boot& boot, const std::string& name) {
    return RequirePlugins(boot, "whatif", name);
}

// "A:B". Names may have colons of their own: the first place where both sides are plugins divides them.
std::vector<PluginWait> WaitsOf(const Boot& boot, const std::string& option, const std::string& text) {
    std::size_t colon = text.find(':');
    if (colon == std::string::npos) {
        throw UsageError("whatif: " + option + " takes two plugins, A:B: " + Shown(text));
    }
    const auto isPlugin = [&](const std::string& name) {
        return !PluginsNamed(boot, name).empty();
    };
    for (std::size_t at = colon; at != std::string::npos; at = text.find(':', at + 1)) {
        if (isPlugin(text.substr(0, at)) && isPlugin(text.substr(at + 1))) {
            colon = at;
            break;
        }
    }
    std::vector<PluginWait> waits;
    for (const PluginIndex before : Named(boot, text.substr(0, colon))) {
        for (const PluginIndex after : Named(boot, text.substr(colon + 1))) {
            waits.push_back({before, after});
        }
    }
    return waits;
}

void RefuseLoops(const Boot& boot, const std::vector<PluginWait>& added) {
    for (const PluginWait& wait : added) {
        if (boot.plugins[wait.before].Runs() && boot.plugins[wait.after].Runs() &&
            Reach(boot, {wait.after}, Direction::After, kAnyDistance)[wait.before]) {
            throw UsageError("whatif: --add " + Shown(boot.plugins[wait.before].Name()) + ':' +
                             Shown(boot.plugins[wait.after].Name()) + " closes a loop");
        }
    }
}

Boot Change(const Boot& boot, const WhatIfOptions& options) {
    ChangedBoot changed(boot);
    for (const std::string& name : options.without) {
        for (const PluginIndex plugin : Named(boot, name)) {
            changed.Remove(plugin);
        }
    }
    for (const std::string& text : options.drop) {
        bool waited = false;
        for (const PluginWait& wait : WaitsOf(boot, "--drop", text)) {
            waited = changed.Drop(wait) || waited;
        }
        if (!waited) {
            throw UsageError("whatif: --drop " + Shown(text) + ": there is no such wait");
        }
    }
    std::vector<PluginWait> added;
    for (const std::string& text : options.add) {
        for (const PluginWait& wait : WaitsOf(boot, "--add", text)) {
            changed.Add(wait);
            added.push_back(wait);
        }
    }
    Boot made = changed.Make();
    RefuseLoops(made, added);
    return made;
}

// Names may have equals signs of their own: the last one divides.
void SetDurations(const Boot& boot, const WhatIfOptions& options, std::vector<Microseconds>& durations) {
    for (const std::string& text : options.set) {
        const std::size_t equals = text.rfind('=');
        const std::optional<Microseconds> duration =
            equals == std::string::npos ? std::nullopt : ParseDuration(std::string_view(text).substr(equals + 1));
        if (!duration) {
            throw UsageError("whatif: --set takes a plugin and a duration, P=20ms: " + Shown(text));
        }
        for (const PluginIndex plugin : Named(boot, text.substr(0, equals))) {
            durations[plugin] = *duration;
        }
    }
    BoundDurations(durations);
}

struct WhatIf {
    Microseconds measured;
    Microseconds modelled;
    Microseconds predicted;
    std::vector<Gain> rank;
    std::vector<ThreadsForecast> threads;
};

WhatIf Imagine(const Boot& boot, const WhatIfOptions& options) {
    ForecastModel model = MeasuredModel(boot);
    WhatIf answer{*MeasuredMakespan(boot), MakeForecast(boot, model).makespan, 0, {}, {}};
    const Boot changed = Change(boot, options);
    SetDurations(boot, options, model.durations);
    model.threads = options.threads.value_or(model.threads);
    answer.predicted = MakeForecast(changed, model).makespan;
    if (options.rank) {
        answer.rank = RankGains(changed, model, answer.predicted);
        answer.threads = ForecastMoreThreads(changed, model, answer.predicted);
    }
    return answer;
}

void WriteJson(const Boot& boot, const WhatIf& whatIf, bool hasRank, std::ostream& output) {
    Json answer = Answer("whatif");
    answer["measured_us"] = whatIf.measured;
    answer["modelled_us"] = whatIf.modelled;
    answer["predicted_us"] = whatIf.predicted;
    if (hasRank) {
        Json& rank = answer["rank"] = Json::array();
        for (const Gain& gain : whatIf.rank) {
            rank.push_back({{"plugin", boot.plugins[gain.plugin].Name()}, {"gain_us", gain.gain}});
        }
        Json& threads = answer["threads"] = Json::array();
        for (const ThreadsForecast& forecast : whatIf.threads) {
            threads.push_back({{"threads", forecast.threads}, {"predicted_us", forecast.makespan}});
        }
    }
    Print(answer, output);
}

// "20ms sooner than modelled (4.5 %)"
std::string Difference(Microseconds time, Microseconds reference, const std::string& name) {
    const Microseconds difference = time - reference;
    if (difference == 0) {
        return "as " + name;
    }
    char percent[64] = "";
    if (reference > 0) {
        constexpr double kHundred = 100;
        std::snprintf(
            percent, sizeof percent, " (%.1f %%)",
            kHundred * static_cast<double>(difference < 0 ? -difference : difference) / static_cast<double>(reference));
    }
    return ShownDuration(difference < 0 ? -difference : difference) + (difference < 0 ? " sooner" : " later") +
           " than " + name + percent;
}

void WriteText(const Boot& boot, const WhatIf& whatIf, bool hasRank, const Palette& palette, std::ostream& output) {
    using enum Table::Align;
    Table lengths({{"boot"}, {"ends at", Right}, {""}});
    lengths.Add({"measured", ShownDuration(whatIf.measured), ""});
    lengths.Add({"modelled", ShownDuration(whatIf.modelled), Difference(whatIf.modelled, whatIf.measured, "measured")});
    lengths.Add(
        {"predicted", ShownDuration(whatIf.predicted), Difference(whatIf.predicted, whatIf.modelled, "modelled")},
        whatIf.predicted < whatIf.modelled ? Colour::Green : Colour::None);
    lengths.Print(output, palette);
    if (!hasRank) {
        return;
    }
    output << '\n';
    Table rank({{"gain", Right}, {"if this took no time"}});
    for (const Gain& gain : whatIf.rank) {
        rank.Add({ShownDuration(gain.gain), Shown(boot.plugins[gain.plugin].Name())});
    }
    rank.Print(output, palette);
    output << '\n';
    if (whatIf.threads.empty()) {
        output << "More threads bring nothing.\n";
        return;
    }
    Table threads({{"threads", Right}, {"ends at", Right}, {""}});
    for (const ThreadsForecast& forecast : whatIf.threads) {
        threads.Add({std::to_string(forecast.threads), ShownDuration(forecast.makespan),
                     Difference(forecast.makespan, whatIf.predicted, "predicted")});
    }
    threads.Print(output, palette);
}

int Run(const Question& question, const WhatIfOptions& options) {
    RequireFormat(question, "whatif", {Format::Text, Format::Json});
    const Boot boot = ReadBoot(question.options.input, std::cerr);
    RequireLog(boot, "whatif");
    const WhatIf whatIf = Imagine(boot, options);
    if (question.options.output.format == Format::Json) {
        WriteJson(boot, whatIf, options.rank, question.output);
    } else {
        WriteText(boot, whatIf, options.rank, Palette(question.options.output.colours), question.output);
    }
    return kFine;
}

}  // namespace

Command DeclareWhatIf(CLI::App& part) {
    const auto options = std::make_shared<WhatIfOptions>();
    const auto addList = [&part](const char* name, std::vector<std::string>& target, const char* type,
                                 const char* help) {
        part.add_option(name, target, help)->type_name(type)->allow_extra_args(false);
    };
    AddThreadsOption(part, options->threads);
    addList("--without", options->without, "P", "as if this plugin were disabled");
    addList("--set", options->set, "P=DURATION", "as if this plugin took so long");
    addList("--add", options->add, "A:B", "as if B waited for A");
    addList("--drop", options->drop, "A:B", "as if B did not wait for A");
    part.add_flag("--rank", options->rank, "what each plugin costs the boot, and what more threads would bring");
    return [options](const Question& question) {
        return Run(question, *options);
    };
}

}  // namespace lofter::analyze
