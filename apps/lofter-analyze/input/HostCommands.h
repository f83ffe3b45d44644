// The commands of a host, as its command directories have them, and what plugins ask of them.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "analysis/Finding.h"
#include "input/HostRoot.h"
#include "plugins/description/PluginDescription.h"

namespace lofter::analyze {

class HostCommands {
  public:
    // None when there is no root to look into, or when that has no command directory.
    explicit HostCommands(const HostRoot* root);

    // Rules "command-syntax" and "unknown-command", the latter where commands are known. The place is the command's.
    std::optional<Finding> Check(const std::string& command, const std::string& plugin, const Place& place) const;

    // Rule "unsafe-mode".
    const std::vector<Finding>& UnsafeModes() const { return unsafeModes; }

  private:
    struct Command {
        std::string file;
        bool isExecutable;
    };
    void AddDirectory(const HostRoot& root, const std::string& directory);

    std::map<std::vector<std::string>, Command> commands;  // by the words of the command
    bool areKnown = false;
    std::vector<Finding> unsafeModes;
};

}  // namespace lofter::analyze
