#include "plugins/NativeInterface.h"

#include <cstddef>

#include "plugins/ProcessState.h"
#include "plugins/SharedObject.h"

namespace lofter {

namespace {

constexpr std::uint32_t kOldestVersion = 1;
constexpr std::uint32_t kNewestVersion = 4;
constexpr std::uint32_t kReleaseVersion = 3;

using StringList = const char* const*;

// The block and the table that a plugin exports: binary interface, so nothing here moves, and the plugin header says
// the same.
struct Metadata {
    std::uint32_t version;
    StringList requiredBarriers;
    StringList providedBarriers;
    // From version 3 on.
    const char* plugin_version;
    unsigned char run_once;
    StringList required_flags;
    StringList disabling_flags;
};
static_assert(offsetof(Metadata, version) == 0);
static_assert(offsetof(Metadata, requiredBarriers) == 8);
static_assert(offsetof(Metadata, providedBarriers) == 16);
static_assert(offsetof(Metadata, plugin_version) == 24);
static_assert(offsetof(Metadata, run_once) == 32);
static_assert(offsetof(Metadata, required_flags) == 40);
static_assert(offsetof(Metadata, disabling_flags) == 48);
static_assert(sizeof(Metadata) == 56);

struct Operations {
    void (*start)();
    void (*apply_host_profile)();
};
static_assert(offsetof(Operations, start) == 0);
static_assert(offsetof(Operations, apply_host_profile) == 8);
static_assert(sizeof(Operations) == 16);

std::vector<std::string> Strings(StringList list) {
    std::vector<std::string> strings;
    for (; list != nullptr && *list != nullptr; ++list) {
        strings.emplace_back(*list);
    }
    return strings;
}

std::set<std::string> StringSet(StringList list) {
    const std::vector<std::string> strings = Strings(list);
    return {strings.begin(), strings.end()};
}

}  // namespace

std::optional<NativeInterface> ReadNativeInterface(const void* metadataSymbol, const void* operationsSymbol) {
    const auto& metadata = *static_cast<const Metadata*>(metadataSymbol);
    const auto& operations = *static_cast<const Operations*>(operationsSymbol);
    if (metadata.version < kOldestVersion || metadata.version > kNewestVersion) {
        return std::nullopt;
    }
    NativeInterface plugin{};
    plugin.version = static_cast<std::int32_t>(metadata.version);
    plugin.hasHostProfileOperation = operations.apply_host_profile != nullptr;
    plugin.providedBarriers = Strings(metadata.providedBarriers);
    plugin.requiredBarriers = Strings(metadata.requiredBarriers);
    if (metadata.version >= kReleaseVersion) {
        plugin.requiredFlags = StringSet(metadata.required_flags);
        plugin.disablingFlags = StringSet(metadata.disabling_flags);
        plugin.runOnce = metadata.run_once != 0;
        plugin.release = metadata.plugin_version == nullptr ? "" : metadata.plugin_version;
    }
    return plugin;
}

std::optional<NativeInterface> LoadNativeInterface(const std::string& path) {
    const ProcessState state;
    const SharedObject object(path);
    const void* operations = object.Symbol("operations");
    const void* metadata = object.Symbol("metadata");
    return ReadNativeInterface(metadata, operations);
}

}  // namespace lofter
