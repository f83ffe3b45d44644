// A plugin that is described by a JSON file: its metadata, and lists of host commands for its operations.
//
// The commands go one by one to the command executor; one that fails does not keep the next ones from running.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "plugins/Plugin.h"

namespace lofter {

class JSONPlugin : public Plugin {
  public:
    using Plugin::Plugin;

    void StartPlugin() override;
    bool HasApplyHostProfile() const override { return Description().hasHostProfileOperation; }
    void ApplyHostProfile() override;
};

// Runs every command through `send`, whose exceptions are failures of single commands: logged, when they have a text,
// and counted. Throws MethodFailedException at the end when any command failed.
void RunCommandList(const std::string& method, const std::string& plugin, const std::vector<std::string>& commands,
                    const std::function<void(const std::string&)>& send);

}  // namespace lofter
