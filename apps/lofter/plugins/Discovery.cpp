#include "plugins/Discovery.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <utility>

#include "Logging.h"
#include "graph/NodeStore.h"
#include "plugins/DebugPlugin.h"
#include "plugins/JSONPlugin.h"
#include "plugins/NativePlugin.h"
#include "posix/Directory.h"

namespace lofter {

namespace {

constexpr const char* kNativeExtension = "so";

using Construct = std::unique_ptr<Plugin> (*)(const std::string& name, const std::string& path);

template <typename Kind>
std::unique_ptr<Plugin> ConstructKind(const std::string& name, const std::string& path) {
    return std::make_unique<Kind>(name, path);
}

// Plugin kinds with a file of their own, by extension; null for any other extension.
Construct ConstructorFor(const std::string& extension) {
    if (extension == kNativeExtension) {
        return ConstructKind<NativePlugin>;
    }
    if (extension == "json") {
        return ConstructKind<JSONPlugin>;
    }
    return nullptr;
}

// Each flag followed by a blank, the last one too; kept on purpose, operators match on the lines.
std::string FlagText(const std::vector<std::string>& flags) {
    std::string text;
    for (const std::string& flag : flags) {
        text += flag + ' ';
    }
    return text;
}

bool IsKeyCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
           c == '_' || c == '+';
}

}  // namespace

Discovery::Discovery(DiscoveryInput discoveryInput, std::set<std::string>& runOnceKeys, PluginList& pluginList)
    : input(std::move(discoveryInput)), runOnce(runOnceKeys), plugins(pluginList) {}

void Discovery::DiscoverAll() {
    const std::vector<DebugEntry> debugEntries = ReadDebugConfiguration(input.debugConfiguration);
    for (const std::string& fileName : posix::FileNames(input.pluginDirectory)) {
        ProcessFile(fileName);
    }
    AppendDebugPlugins(debugEntries);
}

void Discovery::DiscoverListed(const std::vector<std::string>& fileNames) {
    for (const std::string& fileName : fileNames) {
        ProcessFile(fileName);
    }
}

void Discovery::ProcessFile(const std::string& fileName) {
    currentFile = fileName;
    // A listed name that begins with a slash does not lead out of the plugin directory.
    const std::filesystem::path relative = std::filesystem::path(fileName).relative_path();
    const std::string path = (std::filesystem::path(input.pluginDirectory) / relative).string();
    const std::size_t dot = fileName.rfind('.');
    if (dot == std::string::npos) {
        Log_Level(kWarning, "ignoring plugin '%s' of unspecified type...\n", fileName.c_str());
        return;
    }
    std::string name = fileName.substr(0, dot);
    const std::string extension = fileName.substr(dot + 1);

    // Read again for every file, whatever its kind; kept on purpose, with the repeated complaints that come of it.
    std::vector<DebugEntry> debugEntries = ReadDebugConfiguration(input.debugConfiguration);

    if (name.starts_with("lib")) {
        name.erase(0, 3);
    }
    if (extension == "debug") {
        std::erase_if(debugEntries, [&](const DebugEntry& entry) { return entry.name != name; });
        LoadContained(fileName, [&] { AppendDebugPlugins(debugEntries); });
        return;
    }
    const Construct construct = ConstructorFor(extension);
    if (construct == nullptr) {
        Log_Level(kWarning, "ignoring plugin '%s' of unknown type (%s)...\n", fileName.c_str(), extension.c_str());
        return;
    }
    Plugin* plugin = nullptr;
    const auto load = [&] {
        if (extension == kNativeExtension) {
            trial.Try(path);
        }
        plugin = NodeStore::Keep(construct(name, path));
    };
    if (!LoadContained(fileName, load)) {
        return;
    }
    if (IsDisabled(*plugin) || !AdmittedByFlags(*plugin)) {
        plugin->MarkStarted();
        return;
    }
    plugins.push_back(plugin);
    if (plugin->RunOnce()) {
        ApplyRunOnceRule(*plugin);
    }
}

void Discovery::AppendDebugPlugins(const std::vector<DebugEntry>& entries) {
    for (const DebugEntry& entry : entries) {
        plugins.push_back(NodeStore::Keep(std::make_unique<DebugPlugin>(entry)));
    }
}

// By the plugin's name, not by the file's.
bool Discovery::IsDisabled(const Plugin& plugin) const {
    const std::vector<std::string>& disabled = input.disabledPlugins;
    if (std::find(disabled.begin(), disabled.end(), plugin.Name()) == disabled.end()) {
        return false;
    }
    Log_Level(kInfo, "ignoring plugin '%s' due to blacklist.\n", plugin.Name().c_str());
    return true;
}

bool Discovery::AdmittedByFlags(const Plugin& plugin) const {
    std::vector<std::string> disabling;
    std::set_intersection(plugin.DisablingFlags().begin(), plugin.DisablingFlags().end(), input.bootFlags.begin(),
                          input.bootFlags.end(), std::back_inserter(disabling));
    std::vector<std::string> missing;
    std::set_difference(plugin.RequiredFlags().begin(), plugin.RequiredFlags().end(), input.bootFlags.begin(),
                        input.bootFlags.end(), std::back_inserter(missing));
    if (!disabling.empty()) {
        Log_Level(kWarning, "ignoring plugin '%s', disabled due to boot flags: %s.\n", plugin.Name().c_str(),
                  FlagText(disabling).c_str());
    }
    if (!missing.empty()) {
        Log_Level(kWarning, "ignoring plugin '%s', disabled due to missing required boot flags: %s.\n",
                  plugin.Name().c_str(), FlagText(missing).c_str());
    }
    return disabling.empty() && missing.empty();
}

// A plugin that has run stays in the list, so that the barriers it provides are satisfied. It is looked up by its key
// as it is, while the set receives the key without the characters that a record cannot hold: a plugin whose key has
// such characters runs on every boot. Kept on purpose.
void Discovery::ApplyRunOnceRule(Plugin& plugin) {
    std::string key = plugin.Name() + plugin.PluginVersion();
    if (runOnce.contains(key)) {
        Log_Level(kInfo, "ignoring plugin '%s' because version '%s'  has already been run.\n", plugin.Name().c_str(),
                  plugin.PluginVersion().c_str());
        plugin.MarkStarted();
        return;
    }
    std::erase_if(key, [](char c) { return !IsKeyCharacter(c); });
    runOnce.insert(key);
}

bool LoadContained(const std::string& fileName, const std::function<void()>& load) {
    std::string failure;
    try {
        load();
        return true;
    } catch (const std::exception& e) {
        failure = "exception occurred whilst loading plugin " + fileName + ": " + e.what();
    } catch (...) {
        failure = "unknown exception occurred whilst loading plugin " + fileName;
    }
    Log_Level(kWarning, "%s\n", failure.c_str());
    return false;
}

}  // namespace lofter
