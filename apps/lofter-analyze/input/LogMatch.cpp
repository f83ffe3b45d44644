#include "input/LogMatch.h"

#include <deque>
#include <unordered_map>
#include <utility>

#include "input/LineWarnings.h"

namespace lofter::analyze {

namespace {

class Matcher {
  public:
    explicit Matcher(std::vector<BootPlugin> itsPlugins) : plugins(std::move(itsPlugins)), isMatched(plugins.size()) {
        for (const bool runs : {true, false}) {
            for (PluginIndex index = 0; index < plugins.size(); ++index) {
                if (plugins[index].Runs() == runs) {
                    open[plugins[index].Name()].push_back(index);
                }
            }
        }
    }

    void Match(const LoggedPlugin& logged, const std::string& logName) {
        const auto found = open.find(logged.name);
        if (found == open.end() || found->second.empty()) {
            unknown.push_back(logged.name);
            AddUnknown(logged, logName);
            return;
        }
        const PluginIndex index = found->second.front();
        found->second.pop_front();
        isMatched[index] = true;
        inLogOrder.push_back(index);
        if (plugins[index].Runs()) {
            plugins[index].timing = logged.timing;
        } else if (logged.timing) {
            keptOut.push_back(logged.name);
        }
    }

    void Warn(const LineWarnings& warnings) const {
        std::vector<std::string> missing;
        for (PluginIndex index = 0; index < plugins.size(); ++index) {
            if (!isMatched[index] && plugins[index].Runs()) {
                missing.push_back(plugins[index].Name());
            }
        }
        warnings.AddNames("the log has plugins that are not known otherwise", unknown);
        warnings.AddNames("the log has plugins that these options keep out", keptOut);
        warnings.AddNames("the log lacks plugins that should run", missing);
    }

    std::vector<BootPlugin> TakePlugins(NodeOrder order) {
        if (order == NodeOrder::OfPlugins) {
            return std::move(plugins);
        }
        for (PluginIndex index = 0; index < plugins.size(); ++index) {
            if (!isMatched[index]) {
                inLogOrder.push_back(index);
            }
        }
        std::vector<BootPlugin> ordered;
        ordered.reserve(plugins.size());
        for (const PluginIndex index : inLogOrder) {
            ordered.push_back(std::move(plugins[index]));
        }
        return ordered;
    }

  private:
    void AddUnknown(const LoggedPlugin& logged, const std::string& logName) {
        inLogOrder.push_back(plugins.size());
        isMatched.push_back(true);
        BootPlugin& plugin = plugins.emplace_back(PluginDescription(PluginKind::Native, logged.name));
        plugin.isKindKnown = false;
        plugin.place = {logName, logged.line, 0};
        plugin.timing = logged.timing;
    }

    std::vector<BootPlugin> plugins;
    std::vector<bool> isMatched;
    std::unordered_map<std::string, std::deque<PluginIndex>> open;  // those of a name that are not matched yet
    std::vector<PluginIndex> inLogOrder;
    std::vector<std::string> unknown;
    std::vector<std::string> keptOut;
};

}  // namespace

std::vector<BootPlugin> MatchLog(std::vector<BootPlugin> plugins, const LoggedBoot& log, NodeOrder order,
                                 const std::string& logName, std::ostream& warnings) {
    Matcher matcher(std::move(plugins));
    for (const LoggedPlugin& logged : log.plugins) {
        matcher.Match(logged, logName);
    }
    matcher.Warn({logName, warnings});
    return matcher.TakePlugins(order);
}

}  // namespace lofter::analyze
