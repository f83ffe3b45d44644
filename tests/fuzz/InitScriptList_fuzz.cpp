// The first byte says whether daemons are to be started or stopped, the rest is what the host's `chkconfig` prints. No
// script is run.
//
// The lines are taken apart again here, letter by letter. The plugins of one priority wait for no other of it; those of
// the next wait for its barrier.
#include <limits>
#include <map>
#include <optional>
#include <sstream>

#include "base/Settings.h"
#include "graph/Graph.h"
#include "hopper/DaemonPlugin.h"
#include "hopper/InitScriptDiscovery.h"
#include "support/Bytes.h"
#include "support/Plugins.h"
#include "support/Require.h"

namespace lofter::fuzz {
namespace {

std::vector<std::string> Split(const std::string& text, const std::string& separators) {
    std::vector<std::string> words(1);
    for (const char letter : text) {
        if (separators.find(letter) == std::string::npos) {
            words.back() += letter;
        } else if (!words.back().empty()) {
            words.emplace_back();
        }
    }
    if (words.back().empty()) {
        words.pop_back();
    }
    return words;
}

std::optional<std::int32_t> Number(const std::string& text) {
    const bool isSigned = text.starts_with('-') || text.starts_with('+');
    std::int64_t value = 0;
    for (const char digit : text.substr(isSigned ? 1 : 0)) {
        if (digit < '0' || digit > '9' || value > std::numeric_limits<std::int32_t>::max()) {
            return std::nullopt;
        }
        value = value * 10 + (digit - '0');
    }
    value = text.starts_with('-') ? -value : value;
    if (text.size() == (isSigned ? 1 : 0) || value != static_cast<std::int32_t>(value)) {
        return std::nullopt;
    }
    return static_cast<std::int32_t>(value);
}

std::vector<InitScript> ScriptsIn(const std::string& output) {
    std::vector<InitScript> scripts;
    for (const std::string& line : Split(output, "\n")) {
        const std::vector<std::string> words = Split(line, " \t\v\f\r");
        const std::optional<std::int32_t> priority = words.size() < 2 ? std::nullopt : Number(words[1]);
        if (priority) {
            scripts.push_back({words[0], *priority});
        }
    }
    return scripts;
}

bool IsMade(const InitScript& script, bool stopping) {
    const std::string name = script.path.substr(script.path.rfind('/') + 1);
    return stopping || (name != "tssyslogd" && name != "hxed");
}

bool Waits(const Node& node, const Node& forOther) {
    const Node::Links& links = node.Dependencies();
    return std::find(links.begin(), links.end(), &forOther) != links.end();
}

void StandInTheirGroups(const std::vector<InitScript>& scripts, bool stopping) {
    const Settings settings;
    Graph graph(settings);
    const std::vector<Plugin*> plugins =
        MakeDaemonPlugins(scripts, stopping ? 1 : 0, {graph, test::NoActivator::Instance(), {}});
    std::map<std::uint32_t, std::vector<const Plugin*>> groups;
    std::size_t next = 0;
    for (const InitScript& script : scripts) {
        if (IsMade(script, stopping)) {
            Require(next < plugins.size(), "every script becomes a plugin");
            groups[static_cast<std::uint32_t>(script.priority)].push_back(plugins[next++]);
        }
    }
    Require(next == plugins.size(), "nothing else becomes a plugin");

    const Node* barrierBefore = nullptr;
    for (const auto& [priority, members] : groups) {
        const Node* barrier = graph.GetBarrier("_<->_priority_<->_" + std::to_string(priority), false);
        Require(barrier != nullptr, "every priority has its barrier");
        Require(barrierBefore == nullptr || Waits(*barrier, *barrierBefore), "priorities stand in a chain");
        for (const Plugin* plugin : members) {
            Require(Waits(*barrier, *plugin), "a barrier waits for its plugins");
            Require(barrierBefore == nullptr || Waits(*plugin, *barrierBefore), "a plugin waits for the group before");
            Require(plugin->ScheduleClass() == Node::kInitScriptClass, "daemons come after everything else");
        }
        barrierBefore = barrier;
    }
    Require(graph.AllBarriers().size() == groups.size(), "no other barriers");
}

}  // namespace
}  // namespace lofter::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lofter::fuzz;
    Bytes bytes(data, size);
    const bool stopping = bytes.Flag();
    const std::string output = bytes.Rest();

    std::istringstream stream(output);
    const std::vector<lofter::InitScript> scripts = lofter::ReadInitScripts(stream);
    const std::vector<lofter::InitScript> expected = ScriptsIn(output);
    Require(scripts.size() == expected.size(), "as many scripts as lines that fit");
    for (std::size_t index = 0; index < scripts.size(); ++index) {
        Require(scripts[index].path == expected[index].path && scripts[index].priority == expected[index].priority,
                "script " + std::to_string(index));
    }
    StandInTheirGroups(scripts, stopping);
    return 0;
}
