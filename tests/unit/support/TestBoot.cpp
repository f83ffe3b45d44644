#include "support/TestBoot.h"

#include <algorithm>
#include <map>
#include <sstream>
#include <stdexcept>

namespace lofter::analyze::test {

namespace {

BootPlugin PluginOf(const std::string& line) {
    std::istringstream words(line);
    std::string name;
    words >> name;
    if (name.empty() || name.back() != ':') {
        throw std::invalid_argument("no plugin name in: " + line);
    }
    name.pop_back();
    BootPlugin plugin(PluginDescription(PluginKind::Json, name));
    plugin.place.file = name + ".json";

    std::map<std::string, std::vector<Microseconds>> times;
    std::string clause;
    for (std::string word; words >> word;) {
        if (word == "requires" || word == "provides" || word == "ran" || word == "began") {
            clause = word;
        } else if (word == "out") {
            plugin.keptOutBy = "the test";
        } else if (clause == "requires") {
            plugin.description.Require(word);
        } else if (clause == "provides") {
            plugin.description.Provide(word);
        } else {
            times[clause].push_back(std::stoll(word));
        }
    }
    if (times.contains("ran")) {
        plugin.timing = {times["ran"].at(0), times["ran"].at(1)};
    } else if (times.contains("began")) {
        plugin.timing = {times["began"].at(0), std::nullopt};
    }
    return plugin;
}

}  // namespace

Boot BootOf(const std::string& text) {
    std::vector<BootPlugin> plugins;
    std::optional<RunRecord> run;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        plugins.push_back(PluginOf(line));
        if (const std::optional<Timing>& timing = plugins.back().timing) {
            run.emplace(run.value_or(RunRecord{}));
            run->end = std::max(run->end, timing->end.value_or(timing->start));
        }
    }
    return MakeBoot(std::move(plugins), run);
}

PluginIndex IndexOf(const Boot& boot, const std::string& name) {
    for (PluginIndex index = 0; index < boot.plugins.size(); ++index) {
        if (boot.plugins[index].Name() == name) {
            return index;
        }
    }
    throw std::out_of_range("no plugin " + name);
}

std::string Names(const Boot& boot, const std::vector<PluginIndex>& plugins) {
    std::string text;
    const char* separator = "";
    for (const PluginIndex plugin : plugins) {
        text += separator + boot.plugins[plugin].Name();
        separator = " ";
    }
    return text;
}

}  // namespace lofter::analyze::test
