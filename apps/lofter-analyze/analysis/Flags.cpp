#include "analysis/Flags.h"

#include <algorithm>
#include <map>

namespace lofter::analyze {

namespace {

bool KeepsOut(const std::string& flag, const BootPlugin& plugin) {
    return !plugin.description.failure && plugin.description.disablingFlags.contains(flag);
}

// Of the barriers that the plugins kept out provide.
std::vector<BarrierIndex> FindUnprovided(const Boot& boot, const std::string& flag,
                                         const std::vector<PluginIndex>& keptOut) {
    std::vector<BarrierIndex> barriers;
    for (const PluginIndex plugin : keptOut) {
        const std::vector<BarrierIndex>& provided = boot.plugins[plugin].providedBarriers;
        barriers.insert(barriers.end(), provided.begin(), provided.end());
    }
    std::sort(barriers.begin(), barriers.end());
    barriers.erase(std::unique(barriers.begin(), barriers.end()), barriers.end());
    std::erase_if(barriers, [&](BarrierIndex index) {
        const BootBarrier& barrier = boot.barriers[index];
        return barrier.requirers.empty() ||
               !std::all_of(barrier.providers.begin(), barrier.providers.end(),
                            [&](PluginIndex provider) { return KeepsOut(flag, boot.plugins[provider]); });
    });
    return barriers;
}

}  // namespace

std::vector<FlagEffect> FindFlags(const Boot& boot) {
    std::map<std::string, FlagEffect> effects;
    for (PluginIndex index = 0; index < boot.plugins.size(); ++index) {
        if (boot.plugins[index].description.failure) {
            continue;  // no flag makes a difference to what is rejected
        }
        for (const std::string& flag : boot.plugins[index].description.requiredFlags) {
            effects[flag].letsIn.push_back(index);
        }
        for (const std::string& flag : boot.plugins[index].description.disablingFlags) {
            effects[flag].keepsOut.push_back(index);
        }
    }
    std::vector<FlagEffect> found;
    for (auto& [flag, effect] : effects) {
        effect.flag = flag;
        effect.unprovided = FindUnprovided(boot, flag, effect.keepsOut);
        found.push_back(std::move(effect));
    }
    return found;
}

}  // namespace lofter::analyze
