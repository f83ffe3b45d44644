// flags: what each boot flag keeps out or lets in, and what is missing then.
#include "analysis/Flags.h"

#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "commands/Commands.h"
#include "input/BootInput.h"
#include "input/Errors.h"
#include "report/Json.h"
#include "report/Text.h"

namespace lofter::analyze {

namespace {

std::vector<std::string> PluginNames(const Boot& boot, const std::vector<PluginIndex>& plugins) {
    std::vector<std::string> names;
    names.reserve(plugins.size());
    for (const PluginIndex index : plugins) {
        names.push_back(boot.plugins[index].Name());
    }
    return names;
}

std::vector<std::string> BarrierNames(const Boot& boot, const std::vector<BarrierIndex>& barriers) {
    std::vector<std::string> names;
    names.reserve(barriers.size());
    for (const BarrierIndex index : barriers) {
        names.push_back(boot.barriers[index].name);
    }
    return names;
}

std::string Listed(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + Shown(name);
    }
    return text;
}

// A row for each thing that a flag does.
void PrintText(const Boot& boot, const std::vector<FlagEffect>& effects, const Question& question) {
    if (effects.empty()) {
        question.output << "no plugin names a boot flag\n";
        return;
    }
    Table table({{"FLAG"}, {"EFFECT"}, {"PLUGINS OR BARRIERS"}});
    for (const FlagEffect& effect : effects) {
        std::string flag = Shown(effect.flag);
        const auto add = [&](const std::string& what, const std::vector<std::string>& names, Colour colour) {
            if (!names.empty()) {
                table.Add({std::exchange(flag, ""), what, Listed(names)}, colour);
            }
        };
        add("lets in", PluginNames(boot, effect.letsIn), Colour::None);
        add("keeps out", PluginNames(boot, effect.keepsOut), Colour::None);
        add("unprovided", BarrierNames(boot, effect.unprovided), Colour::Yellow);
    }
    table.Print(question.output, Palette(question.options.output.colours));
}

void PrintJson(const Boot& boot, const std::vector<FlagEffect>& effects, const Question& question) {
    Json flags = Json::array();
    for (const FlagEffect& effect : effects) {
        flags.push_back({{"flag", effect.flag},
                         {"lets_in", PluginNames(boot, effect.letsIn)},
                         {"keeps_out", PluginNames(boot, effect.keepsOut)},
                         {"unprovided", BarrierNames(boot, effect.unprovided)}});
    }
    Json answer = Answer("flags");
    answer["flags"] = std::move(flags);
    Print(answer, question.output);
}

int Run(const Question& question) {
    RequireFormat(question, "flags", {Format::Text, Format::Json});
    if (question.options.input.graph) {
        throw NoAnswerError("a dump does not hold boot flags");
    }
    const Boot boot = MakeBoot(ReadPlugins(question.options.input, std::cerr).plugins, std::nullopt);
    const std::vector<FlagEffect> effects = FindFlags(boot);
    if (question.options.output.format == Format::Json) {
        PrintJson(boot, effects, question);
    } else {
        PrintText(boot, effects, question);
    }
    return kFine;
}

}  // namespace

Command DeclareFlags(CLI::App&) {
    return Run;
}

}  // namespace lofter::analyze
