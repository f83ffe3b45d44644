// Discovery turns plugin files and debug entries into the ordered list of plugins to run.
//
// A file's extension decides its kind. What is constructed is then held against the disabled plugins, the boot flags
// and the run-once record, in this order. A plugin that is rejected is marked as started and lives on: its barrier
// edges were recorded when it was constructed, and whoever waits on its barriers goes on. Every rejection is logged
// with its reason; nothing about one file stops the next. Shared objects are tried in another process before they are
// loaded into this one.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "plugins/DebugConfiguration.h"
#include "plugins/ObjectTrial.h"
#include "plugins/Plugin.h"

namespace lofter {

// Plugins in the order in which they were created. They live as long as the process.
using PluginList = std::deque<Plugin*>;

struct DiscoveryInput {
    std::string pluginDirectory;
    std::string debugConfiguration;            // path
    std::vector<std::string> disabledPlugins;  // plugin names
    std::set<std::string> bootFlags;
};

class Discovery {
  public:
    // Extends the list and the set of run-once keys, which must outlive it.
    Discovery(DiscoveryInput input, std::set<std::string>& runOnce, PluginList& plugins);

    // Every entry of the plugin directory, in the order in which it yields them, then every debug entry. Throws
    // std::filesystem::filesystem_error when the directory cannot be read.
    void DiscoverAll();

    // The listed file names of the plugin directory, in list order.
    void DiscoverListed(const std::vector<std::string>& fileNames);

    // The file that is being processed: what is to blame when it takes the process along.
    const std::string& CurrentFile() const { return currentFile; }

  private:
    void ProcessFile(const std::string& fileName);
    void AppendDebugPlugins(const std::vector<DebugEntry>& entries);
    bool IsDisabled(const Plugin& plugin) const;
    bool AdmittedByFlags(const Plugin& plugin) const;
    void ApplyRunOnceRule(Plugin& plugin);

    const DiscoveryInput input;
    std::set<std::string>& runOnce;
    PluginList& plugins;
    ObjectTrial trial;
    std::string currentFile;
};

// Runs `load`, which makes what the file describes. Whatever it throws is logged, and false is returned.
bool LoadContained(const std::string& fileName, const std::function<void()>& load);

}  // namespace lofter
