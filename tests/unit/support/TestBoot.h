// Boots for tests, written as text.
//
//      const Boot boot = BootOf("hw:  provides disk ran 0 10\n"
//                               "net: requires disk provides link ran 10 25");
//
// One line a plugin, in order: its name and a colon, then any of "requires <barriers>", "provides <barriers>",
// "ran <start> <end>" in microseconds, "began <start>" for one that the operator skipped, and "out" for one that is
// kept out. A boot in which something ran or began has the record of a serial run that ends with its last plugin.
#pragma once

#include <string>
#include <vector>

#include "analysis/Boot.h"

namespace lofter::analyze::test {

Boot BootOf(const std::string& text);

// The plugin of that name. Throws std::out_of_range when there is none.
PluginIndex IndexOf(const Boot& boot, const std::string& name);

// The names, separated by blanks.
std::string Names(const Boot& boot, const std::vector<PluginIndex>& plugins);

}  // namespace lofter::analyze::test
