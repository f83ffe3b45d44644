#include "analysis/Boot.h"

#include <map>
#include <utility>

namespace lofter::analyze {

namespace {

void AddOnce(std::vector<PluginIndex>& plugins, PluginIndex plugin) {
    if (plugins.empty() || plugins.back() != plugin) {
        plugins.push_back(plugin);
    }
}

std::map<std::string, BarrierIndex> BarrierNames(const std::vector<BootPlugin>& plugins) {
    std::map<std::string, BarrierIndex> names;
    for (const BootPlugin& plugin : plugins) {
        for (const BarrierLink& link : plugin.description.links) {
            names.emplace(link.barrier, 0);
        }
    }
    BarrierIndex next = 0;
    for (auto& [name, index] : names) {
        index = next++;
    }
    return names;
}

}  // namespace

Boot MakeBoot(std::vector<BootPlugin> plugins, std::optional<RunRecord> run) {
    Boot boot{std::move(plugins), {}, run};
    const std::map<std::string, BarrierIndex> names = BarrierNames(boot.plugins);
    boot.barriers.resize(names.size());
    for (const auto& [name, index] : names) {
        boot.barriers[index].name = name;
    }
    for (PluginIndex index = 0; index < boot.plugins.size(); ++index) {
        BootPlugin& plugin = boot.plugins[index];
        for (const BarrierLink& link : plugin.description.links) {
            const BarrierIndex barrier = names.at(link.barrier);
            if (link.direction == BarrierLink::Direction::Requires) {
                plugin.requiredBarriers.push_back(barrier);
                AddOnce(boot.barriers[barrier].requirers, index);
            } else {
                plugin.providedBarriers.push_back(barrier);
                AddOnce(boot.barriers[barrier].providers, index);
            }
        }
    }
    return boot;
}

}  // namespace lofter::analyze
