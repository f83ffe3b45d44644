#include "plugins/Plugin.h"

#include <utility>

#include "graph/Barriers.h"

namespace lofter {

Plugin::Plugin(std::string pluginName, std::uint32_t nodeClass) : Node(std::move(pluginName), nodeClass) {}

Plugin::~Plugin() = default;

std::int64_t Plugin::ElapsedMicroseconds() const {
    return (static_cast<std::int64_t>(endTime.tv_sec) - startTime.tv_sec) * 1'000'000 +
           (static_cast<std::int64_t>(endTime.tv_usec) - startTime.tv_usec);
}

void Plugin::RequireBarrier(const std::string& barrier) {
    AddDependency(*GetBarrier(barrier, true));
}

void Plugin::ProvideBarrier(const std::string& barrier) {
    AddDependent(*GetBarrier(barrier, true));
}

}  // namespace lofter
