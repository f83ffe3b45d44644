#include "plugins/Plugin.h"

#include <utility>

namespace lofter {

Plugin::Plugin(PluginDescription pluginDescription, Activator& pluginActivator, std::uint32_t nodeClass)
    : Node(pluginDescription.name, nodeClass), description(std::move(pluginDescription)), activator(pluginActivator) {}

Plugin::~Plugin() = default;

void Plugin::Start() {
    Contain([this] { activator.Activate(*this); });
}

std::int64_t Plugin::ElapsedMicroseconds() const {
    return (static_cast<std::int64_t>(endTime.tv_sec) - startTime.tv_sec) * 1'000'000 +
           (static_cast<std::int64_t>(endTime.tv_usec) - startTime.tv_usec);
}

}  // namespace lofter
