#include "plugins/Discovery.h"

#include <exception>
#include <filesystem>
#include <memory>
#include <new>
#include <optional>
#include <utility>

#include "base/Logging.h"
#include "plugins/DebugPlugin.h"
#include "plugins/JSONPlugin.h"
#include "plugins/NativePlugin.h"
#include "plugins/description/JsonDescription.h"
#include "plugins/description/PluginFileName.h"
#include "posix/Directory.h"

namespace lofter {

namespace {

// Stands for a plugin whose file could be described in part only.
class RejectedPlugin : public Node {
  public:
    explicit RejectedPlugin(const std::string& pluginName) : Node(pluginName, kDefaultClass) {}
    void Start() override {}
    std::string DotAttributes() const override { return {}; }
};

// Each flag followed by a blank, the last one too; kept on purpose, operators match on the lines.
std::string FlagText(const std::vector<std::string>& flags) {
    std::string text;
    for (const std::string& flag : flags) {
        text += flag + ' ';
    }
    return text;
}

// For what is done with a plugin of the graph, and may run out of memory: whoever waits for the plugin already goes on
// without it.
template <typename Step>
void RejectUnlessDone(Plugin& plugin, Step step) {
    try {
        step();
    } catch (...) {
        plugin.MarkStarted();
        throw;
    }
}

}  // namespace

Discovery::Discovery(DiscoveryInput discoveryInput, Graph& graphToExtend, Activator& pluginActivator,
                     std::set<std::string>& runOnceKeys, PluginList& pluginList)
    : input(std::move(discoveryInput)),
      graph(graphToExtend),
      activator(pluginActivator),
      runOnce(runOnceKeys),
      plugins(pluginList) {}

void Discovery::DiscoverAll() {
    const DebugConfiguration debug = ReadDebugEntries();
    for (const std::string& fileName : posix::FileNames(input.pluginDirectory)) {
        ProcessFile(fileName);
    }
    AppendDebugPlugins(debug.entries);
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
    const std::optional<PluginFileName> file = ParsePluginFileName(fileName);
    if (!file) {
        Log_Level(kWarning, "ignoring plugin '%s' of unspecified type...\n", fileName.c_str());
        return;
    }
    const std::string& name = file->plugin;

    // Read again for every file, whatever its kind; kept on purpose, with the repeated complaints that come of it.
    DebugConfiguration debug = ReadDebugEntries();

    if (file->kind == PluginKind::Native) {
        LoadContained(fileName, [&] { Admit(AddPlugin<NativePlugin>(objects.Describe(name, path))); });
    } else if (file->kind == PluginKind::Json) {
        LoadContained(fileName, [&] { Admit(AddPlugin<JSONPlugin>(DescribeJsonPlugin(name, path))); });
    } else if (file->kind == PluginKind::Debug) {
        std::erase_if(debug.entries, [&](const PluginDescription& entry) { return entry.name != name; });
        LoadContained(fileName, [&] { AppendDebugPlugins(debug.entries); });
    } else {
        Log_Level(kWarning, "ignoring plugin '%s' of unknown type (%s)...\n", fileName.c_str(),
                  file->extension.c_str());
    }
}

// Debug plugins are not filtered.
void Discovery::AppendDebugPlugins(const std::vector<PluginDescription>& entries) {
    for (const PluginDescription& entry : entries) {
        Plugin& plugin = AddPlugin<DebugPlugin>(entry);
        RejectUnlessDone(plugin, [&] { plugins.push_back(&plugin); });
    }
}

DebugConfiguration Discovery::ReadDebugEntries() const {
    DebugConfiguration debug = ReadDebugConfiguration(input.debugConfiguration);
    for (const DebugConfiguration::SkippedLine& line : debug.skipped) {
        if (line.misuse.empty()) {
            Log_Level(kInfo, "ignoring malformed debug entry at line %d: %s\n", line.number, line.text.c_str());
        } else {
            Log_Level(kWarning, "skipping debug entry at line %d: %s (%s)\n", line.number, line.text.c_str(),
                      line.misuse.c_str());
        }
    }
    if (debug.isCutShort) {
        Log_Level(kWarning, "unable to read all debug entries\n");
    }
    return debug;
}

// Throws what kept the description from being complete.
template <typename Kind>
Plugin& Discovery::AddPlugin(PluginDescription description) {
    if (description.failure) {
        try {
            KeepLinksOfRejected(description);
        } catch (const std::bad_alloc&) {
            // Some links are lost then. What is wrong with the file is said all the same.
        }
        std::rethrow_exception(description.failure);
    }
    Plugin& plugin = graph.Add(std::make_unique<Kind>(std::move(description), activator));
    RejectUnlessDone(plugin, [&] { Link(plugin, plugin.Description()); });
    return plugin;
}

void Discovery::KeepLinksOfRejected(const PluginDescription& description) {
    if (!description.links.empty()) {
        Node& rejected = graph.Add(std::make_unique<RejectedPlugin>(description.name));
        rejected.MarkStarted();
        Link(rejected, description);
    }
}

void Discovery::Link(Node& node, const PluginDescription& description) {
    for (const BarrierLink& link : description.links) {
        if (link.direction == BarrierLink::Direction::Requires) {
            graph.Require(node, link.barrier);
        } else {
            graph.Provide(node, link.barrier);
        }
    }
}

void Discovery::Admit(Plugin& plugin) {
    RejectUnlessDone(plugin, [&] { Filter(plugin); });
}

void Discovery::Filter(Plugin& plugin) {
    if (!IsAdmitted(plugin)) {
        plugin.MarkStarted();
        return;
    }
    plugins.push_back(&plugin);
    if (plugin.RunOnce()) {
        ApplyRunOnceRule(plugin);
    }
}

bool Discovery::IsAdmitted(const Plugin& plugin) const {
    const Admission admission = lofter::Admit(plugin.Description(), input.rules);
    if (admission.isDisabled) {
        Log_Level(kInfo, "ignoring plugin '%s' due to blacklist.\n", plugin.Name().c_str());
        return false;
    }
    if (!admission.disablingFlags.empty()) {
        Log_Level(kWarning, "ignoring plugin '%s', disabled due to boot flags: %s.\n", plugin.Name().c_str(),
                  FlagText(admission.disablingFlags).c_str());
    }
    if (!admission.missingFlags.empty()) {
        Log_Level(kWarning, "ignoring plugin '%s', disabled due to missing required boot flags: %s.\n",
                  plugin.Name().c_str(), FlagText(admission.missingFlags).c_str());
    }
    return admission.IsGranted();
}

// A plugin that has run stays in the list, so that the barriers it provides are satisfied. It is looked up by its key
// as it is, while the set receives the key without the characters that a record cannot hold: a plugin whose key has
// such characters runs on every boot. Kept on purpose.
void Discovery::ApplyRunOnceRule(Plugin& plugin) {
    const std::string key = RunOnceKey(plugin.Description());
    if (runOnce.contains(key)) {
        Log_Level(kInfo, "ignoring plugin '%s' because version '%s'  has already been run.\n", plugin.Name().c_str(),
                  plugin.PluginVersion().c_str());
        plugin.MarkStarted();
        return;
    }
    runOnce.insert(RecordedKey(key));
}

void LoadContained(const std::string& fileName, const std::function<void()>& load) {
    try {
        load();
    } catch (const std::exception& e) {
        Log_Level(kWarning, "exception occurred whilst loading plugin %s: %s\n", fileName.c_str(), e.what());
    } catch (...) {
        Log_Level(kWarning, "unknown exception occurred whilst loading plugin %s\n", fileName.c_str());
    }
}

}  // namespace lofter
