// The unit of boot work: a graph node with metadata, timings and the operations that every plugin kind implements.
//
// A plugin is made of its description. Discovery adds it to the graph and links it to its barriers before it decides
// whether to keep it. A failing operation throws one of the exceptions of Exception.h; activation catches them all.
#pragma once

#include <cstdint>
#include <set>
#include <string>

#include <sys/time.h>

#include "graph/Node.h"
#include "plugins/description/PluginDescription.h"

namespace lofter {

class Plugin;

// What starting a plugin's node comes to: its operation with everything around it. Called on an executor thread, for
// several plugins at once.
class Activator {
  public:
    virtual void Activate(Plugin& plugin) = 0;

  protected:
    ~Activator() = default;
};

class Plugin : public Node {
  public:
    // The activator outlives the plugin.
    Plugin(PluginDescription pluginDescription, Activator& pluginActivator, std::uint32_t nodeClass = kDefaultClass);

    // Activation.
    void Start() override;
    std::string DotAttributes() const override { return {}; }
    ~Plugin() override;

    // The plugin's start operation. Throws MethodFailedException when it ran and failed.
    virtual void StartPlugin() = 0;

    // Whether the plugin takes part in host profiles, and what it does then. Throws NotImplementedException when the
    // plugin has no such operation, MethodFailedException when it ran and failed.
    virtual bool HasApplyHostProfile() const = 0;
    virtual void ApplyHostProfile() = 0;

    // Version of the plugin's interface: -1 for kinds that have none.
    virtual std::int32_t GetVersion() const { return description.version; }

    // Boot flags that must all be present, and flags any one of which prevents the plugin from being loaded.
    const std::set<std::string>& RequiredFlags() const { return description.requiredFlags; }
    const std::set<std::string>& DisablingFlags() const { return description.disablingFlags; }

    // Whether the plugin runs only once per plugin version, and that version (the plugin's own release text).
    bool RunOnce() const { return description.runOnce; }
    const std::string& PluginVersion() const { return description.release; }

    // Wall-clock times of the last run; zero before it. Activation stamps them.
    const timeval& StartTime() const { return startTime; }
    const timeval& EndTime() const { return endTime; }
    std::int64_t ElapsedMicroseconds() const;
    void SetStartTime(const timeval& time) { startTime = time; }
    void SetEndTime(const timeval& time) { endTime = time; }

    // What its file, or its line of the debug configuration, says.
    const PluginDescription& Description() const { return description; }

  private:
    const PluginDescription description;
    Activator& activator;
    timeval startTime{};
    timeval endTime{};
};

}  // namespace lofter
