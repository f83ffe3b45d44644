#include "commands/Answers.h"

#include <set>

#include "analysis/Reach.h"
#include "analysis/Waits.h"
#include "input/Errors.h"
#include "report/Text.h"

namespace lofter::analyze {

void RequireLog(const Boot& boot, const std::string& command) {
    if (!boot.run) {
        throw NoAnswerError(command + ": there is no profiling log of this boot");
    }
    if (!LastToEnd(boot)) {
        throw NoAnswerError(command + ": no plugin ran in this boot");
    }
}

std::vector<PluginIndex> RequirePlugins(const Boot& boot, const std::string& command, const std::string& name) {
    std::vector<PluginIndex> plugins = PluginsNamed(boot, name);
    if (plugins.empty()) {
        throw NoAnswerError(command + ": there is no plugin \"" + Shown(name) + '"');
    }
    return plugins;
}

std::vector<std::string> RequiredBarriers(const Boot& boot, PluginIndex plugin) {
    std::vector<std::string> names;
    std::set<BarrierIndex> seen;
    for (const BarrierIndex barrier : boot.plugins[plugin].requiredBarriers) {
        if (seen.insert(barrier).second) {
            names.push_back(boot.barriers[barrier].name);
        }
    }
    return names;
}

std::vector<std::string> NamesOf(const Boot& boot, const std::vector<PluginIndex>& plugins) {
    std::vector<std::string> names;
    names.reserve(plugins.size());
    for (const PluginIndex plugin : plugins) {
        names.push_back(boot.plugins[plugin].Name());
    }
    return names;
}

std::string Listed(const std::vector<std::string>& names) {
    std::string text;
    const char* separator = "";
    for (const std::string& name : names) {
        text += separator + Shown(name);
        separator = ", ";
    }
    return text;
}

std::string ShownOrDash(const std::optional<Microseconds>& duration) {
    return duration ? ShownDuration(*duration) : "-";
}

std::optional<std::string> KindOf(const BootPlugin& plugin) {
    if (!plugin.isKindKnown) {
        return std::nullopt;
    }
    switch (plugin.description.kind) {
        case PluginKind::Native:
            return "native";
        case PluginKind::Json:
            return "json";
        case PluginKind::Debug:
            return "debug";
        case PluginKind::Daemon:
            break;
    }
    return "daemon";
}

std::string Counted(std::size_t number, const std::string& thing) {
    return std::to_string(number) + ' ' + thing + (number == 1 ? "" : "s");
}

void AddThreadsOption(CLI::App& part, std::optional<std::size_t>& threads) {
    constexpr std::size_t kMost = 1'000'000'000;
    part.add_option("--threads", threads, "how many plugins may run at once (default: as the log says)")
        ->type_name("N")
        ->check(CLI::Range(std::size_t{1}, kMost).description(""));
}

}  // namespace lofter::analyze
