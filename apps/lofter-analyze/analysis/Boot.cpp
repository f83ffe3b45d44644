#include "analysis/Boot.h"

#include <algorithm>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace lofter::analyze {

namespace {

void AddOnce(std::vector<PluginIndex>& plugins, PluginIndex plugin) {
    if (plugins.empty() || plugins.back() != plugin) {
        plugins.push_back(plugin);
    }
}

// Of all that plugins name, each once and by name. The names are the plugins'.
std::vector<std::string_view> BarrierNames(const std::vector<BootPlugin>& plugins) {
    std::vector<std::string_view> names;
    for (const BootPlugin& plugin : plugins) {
        for (const BarrierLink& link : plugin.description.links) {
            names.push_back(link.barrier);
        }
    }
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

}  // namespace

Boot MakeBoot(std::vector<BootPlugin> plugins, std::optional<RunRecord> run) {
    Boot boot{std::move(plugins), {}, run};
    std::unordered_map<std::string_view, BarrierIndex> indices;
    for (const std::string_view name : BarrierNames(boot.plugins)) {
        indices.emplace(name, boot.barriers.size());
        boot.barriers.push_back({std::string(name), {}, {}});
    }
    for (PluginIndex index = 0; index < boot.plugins.size(); ++index) {
        BootPlugin& plugin = boot.plugins[index];
        for (const BarrierLink& link : plugin.description.links) {
            const BarrierIndex barrier = indices.at(link.barrier);
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
