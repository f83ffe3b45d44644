// The unit of boot work: a graph node with metadata, timings and the operations that every plugin kind implements.
//
// A plugin links itself to named barriers while it is constructed, before discovery decides whether to keep it. A
// failing operation throws one of the exceptions of Exception.h; activation (Start) catches them all.
#pragma once

#include <cstdint>
#include <set>
#include <string>

#include <sys/time.h>

#include "graph/Node.h"

namespace lofter {

class Plugin : public Node {
  public:
    explicit Plugin(std::string pluginName, std::uint32_t nodeClass = kDefaultClass);

    // Activation; see Activation.h.
    void Start() override;
    std::string DotAttributes() const override { return {}; }
    ~Plugin() override;

    // The plugin's start operation. Throws MethodFailedException when it ran and failed.
    virtual void StartPlugin() = 0;

    // Whether the plugin takes part in host profiles, and what it does then. Throws NotImplementedException when the
    // plugin has no such operation, MethodFailedException when it ran and failed.
    virtual bool HasApplyHostProfile() const = 0;
    virtual void ApplyHostProfile() = 0;

    // Version of the plugin's interface: -1 until the kind has set it.
    virtual std::int32_t GetVersion() const { return version; }

    // Boot flags that must all be present, and flags any one of which prevents the plugin from being loaded.
    const std::set<std::string>& RequiredFlags() const { return required_flags; }
    const std::set<std::string>& DisablingFlags() const { return disabling_flags; }

    // Whether the plugin runs only once per plugin version, and that version (the plugin's own release text).
    bool RunOnce() const { return run_once; }
    const std::string& PluginVersion() const { return plugin_version; }

    // Wall-clock times of the last run; zero before it. Activation stamps them.
    const timeval& StartTime() const { return startTime; }
    const timeval& EndTime() const { return endTime; }
    std::int64_t ElapsedMicroseconds() const;
    void SetStartTime(const timeval& time) { startTime = time; }
    void SetEndTime(const timeval& time) { endTime = time; }

  protected:
    // Records that this plugin waits for the named barrier, or that the barrier waits for this plugin. The barrier is
    // created on first mention.
    void RequireBarrier(const std::string& barrier);
    void ProvideBarrier(const std::string& barrier);

    std::int32_t version = -1;
    bool run_once = false;
    std::string plugin_version;
    std::set<std::string> required_flags;
    std::set<std::string> disabling_flags;

  private:
    void Activate();

    timeval startTime{};
    timeval endTime{};
};

}  // namespace lofter
