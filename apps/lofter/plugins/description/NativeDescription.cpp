#include "plugins/description/NativeDescription.h"

#include <lofter/plugin.h>

#include "base/Exception.h"
#include "plugins/description/SharedObject.h"

namespace lofter {

namespace {

std::vector<std::string> Strings(lofter_list list) {
    std::vector<std::string> strings;
    for (; list != nullptr && *list != nullptr; ++list) {
        strings.emplace_back(*list);
    }
    return strings;
}

std::set<std::string> StringSet(lofter_list list) {
    const std::vector<std::string> strings = Strings(list);
    return {strings.begin(), strings.end()};
}

}  // namespace

void ReadNativeInterface(const void* metadataSymbol, const void* operationsSymbol, PluginDescription& plugin) {
    const auto& block = *static_cast<const lofter_metadata*>(metadataSymbol);
    const auto& table = *static_cast<const lofter_operations*>(operationsSymbol);
    if (block.version < LOFTER_VERSION_BASIC || block.version > LOFTER_VERSION_LATEST) {
        throw InvalidPluginException(plugin.path, "Unsupported API version");
    }
    plugin.version = static_cast<std::int32_t>(block.version);
    plugin.hasHostProfileOperation =
        block.version >= LOFTER_VERSION_HOST_PROFILE && table.apply_host_profile != nullptr;
    for (std::string& barrier : Strings(block.provided_barriers)) {
        plugin.Provide(std::move(barrier));
    }
    for (std::string& barrier : Strings(block.required_barriers)) {
        plugin.Require(std::move(barrier));
    }
    if (block.version >= LOFTER_VERSION_RELEASE) {
        plugin.requiredFlags = StringSet(block.required_flags);
        plugin.disablingFlags = StringSet(block.disabling_flags);
        plugin.runOnce = block.run_once != 0;
        plugin.release = block.plugin_version == nullptr ? "" : block.plugin_version;
    }
}

PluginDescription DescribeNativePlugin(const std::string& name, const std::string& path) {
    PluginDescription plugin(PluginKind::Native, name, path);
    try {
        const SharedObject object(path);
        const void* const operations = object.Symbol("operations");
        const void* const metadata = object.Symbol("metadata");
        ReadNativeInterface(metadata, operations, plugin);
    } catch (...) {
        plugin.failure = std::current_exception();
    }
    return plugin;
}

}  // namespace lofter
