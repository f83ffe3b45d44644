// What the name of a file in the plugin directory says about it.
#pragma once

#include <optional>
#include <string>

#include "plugins/description/PluginDescription.h"

namespace lofter {

struct PluginFileName {
    std::string plugin;              // without the extension, and without "lib" in front
    std::string extension;           // behind the last dot; may be empty
    std::optional<PluginKind> kind;  // by the extension, upper and lower case told apart; nothing for an unknown one
};

// Nothing for a name without a dot. Debug means the lines of the debug configuration that have the plugin's name.
std::optional<PluginFileName> ParsePluginFileName(const std::string& fileName);

}  // namespace lofter
