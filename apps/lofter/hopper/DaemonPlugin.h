// A daemon of the host as a node of the graph: starting the node starts the daemon, stopping it stops the daemon.
//
// Holds the commands by which the daemon is operated and runs them through the command runner. A kind of daemon plugin
// fills `operations` while it is constructed.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "hopper/CommandRunner.h"
#include "plugins/Plugin.h"

namespace lofter {

enum class DaemonState : std::uint32_t {
    Untouched = 0,
    Started = 2,
    Stopped = 12,
    StartFailed = 20,
};

class DaemonPlugin : public Plugin {
  public:
    // The kind is the schedule class of the node. The activator outlives the plugin.
    DaemonPlugin(const std::string& name, std::uint32_t startPriority, std::uint32_t pluginKind,
                 const CommandSettings& settings, Activator& pluginActivator);

    // Activation, shown on the console's progress screen. Never throws.
    void Start() override;
    // Stops the daemon and tells the kernel's boot log how that went; a failure is only reported.
    void Stop() override;

    // Throws MethodFailedException when the command failed.
    void StartPlugin() override;
    bool HasApplyHostProfile() const override { return false; }
    void ApplyHostProfile() override;

    // Throws what the command runner threw, as it is: only a failed start is recorded and wrapped, on purpose.
    virtual void StopDaemon();
    virtual void Restart();
    virtual void SSLReset();

    std::uint32_t Priority() const { return priority; }
    DaemonState State() const { return daemonState; }

  protected:
    // Numbers of the operations; the command line of each is looked up by them.
    enum Operation : std::int32_t { kStart = 2, kStop = 4 };
    std::map<std::int32_t, std::string> operations;

  private:
    // Throws Exception when the plugin has no command for the operation, else what the command runner throws.
    void Run(Operation operation) const;

    const std::uint32_t priority;
    DaemonState daemonState = DaemonState::Untouched;
    const CommandSettings commandSettings;
};

}  // namespace lofter
