// A plugin that is described by a JSON file: its metadata, and lists of host commands for its operations.
//
// The file is read once, while the plugin is constructed. The commands go one by one to the command executor; one that
// fails does not keep the next ones from running.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "plugins/Plugin.h"

namespace lofter {

class JSONPlugin : public Plugin {
  public:
    // Throws InvalidPluginException for a file that cannot be opened or does not describe a plugin. Barrier edges
    // recorded before the failing member stay recorded.
    JSONPlugin(const std::string& name, const std::string& path);
    ~JSONPlugin() override;

    void StartPlugin() override;
    bool HasApplyHostProfile() const override;
    void ApplyHostProfile() override;

    // In file order.
    const std::vector<std::string>& StartCommands() const { return startCommands; }
    const std::vector<std::string>& HostProfileCommands() const { return hostProfileCommands; }

  private:
    class File;
    void ReadMetadata(const File& file, const nlohmann::json& metadata);
    void ReadFlagsAndRunOnce(const File& file, const nlohmann::json& metadata);
    void ReadOperations(const File& file, const nlohmann::json& operations);

    std::vector<std::string> startCommands;
    std::vector<std::string> hostProfileCommands;
};

// Runs every command through `send`, whose exceptions are failures of single commands: logged, when they have a text,
// and counted. Throws MethodFailedException at the end when any command failed.
void RunCommandList(const std::string& method, const std::string& plugin, const std::vector<std::string>& commands,
                    const std::function<void(const std::string&)>& send);

}  // namespace lofter
