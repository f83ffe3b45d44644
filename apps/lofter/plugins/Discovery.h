// Discovery turns plugin files and debug entries into nodes of the graph, and into the ordered list of plugins to run.
//
// A file's extension decides its kind. It is described, added to the graph and linked to its barriers; then it is held
// against the disabled plugins, the boot flags and the run-once record, in this order. A plugin that is rejected stays
// in the graph, marked as started: its links count, and whoever waits on its barriers goes on. So do those of a file
// that could be described in part only. Every rejection is logged with its reason; nothing about one file stops the
// next. Shared objects are loaded in another process.
#pragma once

#include <deque>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "graph/Graph.h"
#include "plugins/ObjectReader.h"
#include "plugins/Plugin.h"
#include "plugins/description/Admission.h"
#include "plugins/description/DebugConfiguration.h"

namespace lofter {

// Plugins in the order in which they were created, owned by the graph.
using PluginList = std::deque<Plugin*>;

struct DiscoveryInput {
    std::string pluginDirectory;
    std::string debugConfiguration;  // path
    AdmissionRules rules;
};

class Discovery {
  public:
    // Extends the graph, the list and the set of run-once keys. They outlive it, and the activator the plugins.
    Discovery(DiscoveryInput discoveryInput, Graph& graphToExtend, Activator& pluginActivator,
              std::set<std::string>& runOnceKeys, PluginList& pluginList);

    // Every entry of the plugin directory, in the order in which it yields them, then every debug entry. Throws
    // std::filesystem::filesystem_error when the directory cannot be read.
    void DiscoverAll();

    // The listed file names of the plugin directory, in list order.
    void DiscoverListed(const std::vector<std::string>& fileNames);

    // The file that is being processed: what is to blame when it takes the process along.
    const std::string& CurrentFile() const { return currentFile; }

  private:
    void ProcessFile(const std::string& fileName);
    DebugConfiguration ReadDebugEntries() const;
    void AppendDebugPlugins(const std::vector<PluginDescription>& entries);
    void Link(Node& node, const PluginDescription& description);
    void KeepLinksOfRejected(const PluginDescription& description);
    template <typename Kind>
    Plugin& AddPlugin(PluginDescription description);
    void Admit(Plugin& plugin);
    void Filter(Plugin& plugin);
    bool IsAdmitted(const Plugin& plugin) const;
    void ApplyRunOnceRule(Plugin& plugin);

    const DiscoveryInput input;
    Graph& graph;
    Activator& activator;
    std::set<std::string>& runOnce;
    PluginList& plugins;
    ObjectReader objects;
    std::string currentFile;
};

// Runs `load`, which makes what the file describes. Whatever it throws is logged.
void LoadContained(const std::string& fileName, const std::function<void()>& load);

}  // namespace lofter
