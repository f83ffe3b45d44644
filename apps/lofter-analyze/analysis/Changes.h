// A boot with some of its plugins and waits imagined away, or others imagined in.
#pragma once

#include <string>
#include <vector>

#include "analysis/Boot.h"

namespace lofter::analyze {

// One plugin waits for another.
struct PluginWait {
    PluginIndex before;
    PluginIndex after;
};

// Plugins keep their indices and times.
class ChangedBoot {
  public:
    explicit ChangedBoot(const Boot& boot) : original(boot), plugins(boot.plugins) {}

    // As if it were disabled: it counts as started.
    void Remove(PluginIndex plugin) { plugins[plugin].keptOutBy = "imagined away"; }

    // The second no longer waits for the first, by any barrier; it still does for whoever else provides those barriers.
    // False when it did not wait for it.
    bool Drop(const PluginWait& wait);

    // The second waits for the first.
    void Add(const PluginWait& wait);

    Boot Make() const;

  private:
    std::string NewBarrier();
    bool ReplaceProvider(const std::string& barrier, PluginIndex provider, const std::string& replacement);

    const Boot& original;
    std::vector<BootPlugin> plugins;
    std::size_t newBarriers = 0;
};

}  // namespace lofter::analyze
