// dot: the graph for people, or the part of it that matters.
#include "report/Dot.h"

#include <charconv>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "analysis/Reach.h"
#include "commands/Answers.h"
#include "commands/Commands.h"
#include "input/BootInput.h"
#include "input/Errors.h"
#include "report/Text.h"

namespace lofter::analyze {

namespace {

struct DotOptions {
    std::optional<std::string> from;
    std::optional<std::string> to;
    std::optional<std::string> around;
    bool isLoopsOnly = false;
    bool foldsBarriers = false;
};

// "net" or "net,2". A name that ends in a comma and a number is known by being a plugin's.
PluginSet Around(const Boot& boot, const std::string& argument) {
    const std::size_t comma = argument.rfind(',');
    if (comma == std::string::npos || !PluginsNamed(boot, argument).empty()) {
        return Reach(boot, RequirePlugins(boot, "dot", argument), Direction::Both, 1);
    }
    std::size_t distance = 0;
    const char* const end = argument.data() + argument.size();
    const auto [rest, problem] = std::from_chars(argument.data() + comma + 1, end, distance);
    if (problem != std::errc{} || rest != end) {
        throw UsageError("dot: --around takes a plugin, or a plugin, a comma and a number: " + Shown(argument));
    }
    return Reach(boot, RequirePlugins(boot, "dot", argument.substr(0, comma)), Direction::Both, distance);
}

void KeepCommon(PluginSet& plugins, const PluginSet& others) {
    for (PluginIndex index = 0; index < plugins.size(); ++index) {
        plugins[index] = plugins[index] && others[index];
    }
}

PluginSet Select(const Boot& boot, const DotOptions& options) {
    PluginSet plugins(boot.plugins.size(), true);
    if (options.from) {
        KeepCommon(plugins, Reach(boot, RequirePlugins(boot, "dot", *options.from), Direction::After, kAnyDistance));
    }
    if (options.to) {
        KeepCommon(plugins, Reach(boot, RequirePlugins(boot, "dot", *options.to), Direction::Before, kAnyDistance));
    }
    if (options.around) {
        KeepCommon(plugins, Around(boot, *options.around));
    }
    return plugins;
}

int Run(const Question& question, const DotOptions& options) {
    RequireFormat(question, "dot", {Format::Text});
    const Boot boot = ReadBoot(question.options.input, std::cerr);
    WriteDot(boot, {Select(boot, options), options.isLoopsOnly, options.foldsBarriers}, question.output);
    return kFine;
}

}  // namespace

Command DeclareDot(CLI::App& part) {
    const auto options = std::make_shared<DotOptions>();
    part.add_option("--from", options->from, "this plugin and what waits for it, directly or not")->type_name("PLUGIN");
    part.add_option("--to", options->to, "this plugin and what it waits for, directly or not")->type_name("PLUGIN");
    part.add_option("--around", options->around, "this plugin and those so many barriers away (default: 1)")
        ->type_name("PLUGIN[,N]");
    part.add_flag("--cycles-only", options->isLoopsOnly, "only plugins and barriers that wait for each other for ever");
    part.add_flag("--plugins-only", options->foldsBarriers, "barriers as names of the links between plugins");
    return [options](const Question& question) {
        return Run(question, *options);
    };
}

}  // namespace lofter::analyze
