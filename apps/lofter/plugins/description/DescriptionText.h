// A description of a native plugin as a text that goes from one process to another.
//
// The texts of native plugins end with a NUL and so does each field: what kept the object from being read, the
// interface version, whether there is a host-profile operation, run-once, the release; then links and flags in their
// order, each behind a letter that says which it is.
#pragma once

#include <string>

#include "plugins/description/PluginDescription.h"

namespace lofter {

std::string ToText(const PluginDescription& plugin);

// Fills a description that has its name and path. A failure becomes an Exception of the same text. Throws
// std::invalid_argument for a text that no description has.
void FromText(const std::string& text, PluginDescription& plugin);

}  // namespace lofter
