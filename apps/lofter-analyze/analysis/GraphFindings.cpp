#include "analysis/GraphFindings.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "analysis/Cycles.h"

namespace lofter::analyze {

namespace {

class GraphCheck {
  public:
    explicit GraphCheck(const Boot& checked) : boot(checked) {}

    void CheckCycles() {
        for (const Cycle& cycle : FindCycles(boot)) {
            const std::string what = cycle.size() == 1 ? "waits for itself" : "wait for each other";
            Add("cycle", Severity::Error, cycle.front().plugin, what + " for ever: " + ShownCycle(boot, cycle));
        }
    }

    // What is kept out counts as run, and waits for nothing.
    void CheckProviders(Severity severity) {
        for (const BootBarrier& barrier : boot.barriers) {
            const std::vector<PluginIndex> waiting = Running(barrier.requirers);
            if (barrier.providers.empty() && !waiting.empty()) {
                Add("missing-provider", severity, waiting.front(),
                    "no plugin provides the barrier \"" + barrier.name + "\", which " + Listed(waiting));
            }
        }
    }

    void CheckNames() {
        std::unordered_map<std::string_view, PluginIndex> first;
        for (PluginIndex index = 0; index < boot.plugins.size(); ++index) {
            const BootPlugin& plugin = boot.plugins[index];
            if (!plugin.Runs()) {
                continue;
            }
            const auto [known, isNew] = first.try_emplace(plugin.Name(), index);
            if (!isNew) {
                Add("duplicate-name", Severity::Warning, index,
                    "another plugin is called \"" + plugin.Name() +
                        "\", too: " + Shown(boot.plugins[known->second].place));
            }
        }
    }

    void CheckUse() {
        for (const BootBarrier& barrier : boot.barriers) {
            if (barrier.requirers.empty()) {
                Add("unused-barrier", Severity::Note, barrier.providers.front(),
                    "no plugin requires the barrier \"" + barrier.name + "\"");
            }
        }
    }

    // A file that is rejected is told of by other rules.
    void CheckKeptOut() {
        for (PluginIndex index = 0; index < boot.plugins.size(); ++index) {
            const BootPlugin& plugin = boot.plugins[index];
            if (!plugin.Runs() && !plugin.description.failure) {
                Add("kept-out", Severity::Note, index, "does not run: " + plugin.keptOutBy);
            }
        }
    }

    std::vector<Finding> Take() { return std::move(findings); }

  private:
    void Add(const char* rule, Severity severity, PluginIndex index, std::string text) {
        const BootPlugin& plugin = boot.plugins[index];
        findings.push_back({rule, severity, plugin.place, plugin.Name(), std::move(text)});
    }

    std::vector<PluginIndex> Running(const std::vector<PluginIndex>& plugins) const {
        std::vector<PluginIndex> running;
        std::copy_if(plugins.begin(), plugins.end(), std::back_inserter(running),
                     [&](PluginIndex index) { return boot.plugins[index].Runs(); });
        return running;
    }

    // "a, b and c require"
    std::string Listed(const std::vector<PluginIndex>& plugins) const {
        std::string text;
        for (std::size_t index = 0; index < plugins.size(); ++index) {
            const bool isLast = index + 1 == plugins.size();
            text += (index == 0 ? "" : isLast ? " and " : ", ") + boot.plugins[plugins[index]].Name();
        }
        return text + (plugins.size() == 1 ? " requires" : " require");
    }

    static std::string Shown(const Place& place) {
        return place.file + (place.line > 0 ? ":" + std::to_string(place.line) : "");
    }

    const Boot& boot;
    std::vector<Finding> findings;
};

}  // namespace

std::vector<Finding> FindInGraph(const Boot& boot, GraphSource source) {
    GraphCheck check(boot);
    check.CheckCycles();
    check.CheckProviders(source == GraphSource::Dump ? Severity::Note : Severity::Warning);
    check.CheckNames();
    check.CheckUse();
    check.CheckKeptOut();
    return check.Take();
}

}  // namespace lofter::analyze
