// JSON plugins, described by their file.
#pragma once

#include <optional>
#include <string>

#include "plugins/description/PluginDescription.h"

namespace lofter {

// Failures are InvalidPluginException, for a file that cannot be opened or does not describe a plugin. The links of a
// list are there when the whole list could be read.
PluginDescription DescribeJsonPlugin(const std::string& name, const std::string& path);

// The same for a file whose content was read already; nothing for one that cannot be opened. The path is for messages.
PluginDescription DescribeJsonContent(const std::string& name, const std::string& path,
                                      const std::optional<std::string>& content);

}  // namespace lofter
