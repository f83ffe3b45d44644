// Plugins of descriptions, outside of any graph.
#pragma once

#include <exception>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "plugins/Plugin.h"

namespace lofter::test {

// For plugins whose node nobody starts.
class NoActivator final : public Activator {
  public:
    void Activate(Plugin& /*plugin*/) override {}

    static NoActivator& Instance() {
        static NoActivator instance;
        return instance;
    }
};

// Throws what kept the description from being complete, as discovery does.
template <typename Kind>
std::unique_ptr<Kind> MakePlugin(PluginDescription description) {
    if (description.failure) {
        std::rethrow_exception(description.failure);
    }
    return std::make_unique<Kind>(std::move(description), NoActivator::Instance());
}

inline std::vector<std::string> Barriers(const PluginDescription& description, BarrierLink::Direction direction) {
    std::vector<std::string> names;
    for (const BarrierLink& link : description.links) {
        if (link.direction == direction) {
            names.push_back(link.barrier);
        }
    }
    return names;
}
inline std::vector<std::string> Required(const PluginDescription& description) {
    return Barriers(description, BarrierLink::Direction::Requires);
}
inline std::vector<std::string> Provided(const PluginDescription& description) {
    return Barriers(description, BarrierLink::Direction::Provides);
}

}  // namespace lofter::test
