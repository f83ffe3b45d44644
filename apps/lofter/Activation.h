// Activation: what a plugin does when the executor runs its node.
//
// Stamps the start time, gives the operator a chance to stop in front of the plugin, reports to the kernel's boot log,
// calls the right operation, catches every failure, stamps the end time and reports the outcome. Never lets an
// exception of the plugin escape: a failed plugin counts as started, and what depends on it runs.
//
// The operation is the method named on the command line, if any; else ApplyHostProfile for a plugin that takes part in
// host profiles on a host that has one; else StartPlugin.
#pragma once

#include <optional>
#include <string>

#include "base/Settings.h"
#include "console/Operator.h"
#include "plugins/Plugin.h"

namespace lofter {

class Activation final : public Activator {
  public:
    // Both outlive it.
    Activation(const Settings& runSettings, Operator& runOperator) : settings(runSettings), runsOperator(runOperator) {}

    void Activate(Plugin& plugin) override;

  private:
    // The text of the failure, if any.
    using Failure = std::optional<std::string>;

    Failure Execute(Plugin& plugin);
    Failure ExecuteContained(Plugin& plugin);
    bool HostProfilePresent();

    const Settings& settings;
    Operator& runsOperator;
    std::optional<bool> hostProfilePresent;  // looked up once, under the graph lock
};

// Calls the plugin's operation of that name ("start" or "apply_host_profile"). Any other name calls nothing and
// succeeds, on purpose. A failure is logged and makes the result false.
bool InvokeMethod(Plugin& plugin, const std::string& method);

}  // namespace lofter
