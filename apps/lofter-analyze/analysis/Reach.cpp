#include "analysis/Reach.h"

#include <utility>

namespace lofter::analyze {

namespace {

class Walk {
  public:
    explicit Walk(const Boot& walked)
        : boot(walked),
          reached(boot.plugins.size()),
          areProvidersSeen(boot.barriers.size()),
          areRequirersSeen(boot.barriers.size()) {}

    // Takes what is new in the list into the set; the next step goes on from there.
    void Enter(const std::vector<PluginIndex>& plugins) {
        for (const PluginIndex plugin : plugins) {
            if (!reached[plugin]) {
                reached[plugin] = true;
                border.push_back(plugin);
            }
        }
    }

    // False when there was nowhere to go.
    bool Step(Direction direction, bool isFirst) {
        const std::vector<PluginIndex> from = std::exchange(border, {});
        for (const PluginIndex index : from) {
            const BootPlugin& plugin = boot.plugins[index];
            if (!plugin.Runs() && !isFirst) {
                continue;
            }
            if (direction != Direction::After) {
                for (const BarrierIndex barrier : plugin.requiredBarriers) {
                    EnterOnce(areProvidersSeen, barrier, boot.barriers[barrier].providers);
                }
            }
            if (direction != Direction::Before) {
                for (const BarrierIndex barrier : plugin.providedBarriers) {
                    EnterOnce(areRequirersSeen, barrier, boot.barriers[barrier].requirers);
                }
            }
        }
        return !border.empty();
    }

    PluginSet Take() { return std::move(reached); }

  private:
    void EnterOnce(std::vector<bool>& seen, BarrierIndex barrier, const std::vector<PluginIndex>& plugins) {
        if (!seen[barrier]) {
            seen[barrier] = true;
            Enter(plugins);
        }
    }

    const Boot& boot;
    PluginSet reached;
    std::vector<PluginIndex> border;
    std::vector<bool> areProvidersSeen;  // by barrier
    std::vector<bool> areRequirersSeen;
};

}  // namespace

PluginSet Reach(const Boot& boot, const std::vector<PluginIndex>& from, Direction direction, std::size_t distance) {
    Walk walk(boot);
    walk.Enter(from);
    for (std::size_t step = 0; step < distance && walk.Step(direction, step == 0); ++step) {
    }
    return walk.Take();
}

std::vector<PluginIndex> PluginsNamed(const Boot& boot, const std::string& name) {
    std::vector<PluginIndex> named;
    for (PluginIndex index = 0; index < boot.plugins.size(); ++index) {
        if (boot.plugins[index].Name() == name) {
            named.push_back(index);
        }
    }
    return named;
}

}  // namespace lofter::analyze
