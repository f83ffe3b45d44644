// Which plugins lie around one in the graph, near or far.
#pragma once

#include <cstddef>
#include <limits>
#include <string>
#include <vector>

#include "analysis/Boot.h"

namespace lofter::analyze {

using PluginSet = std::vector<bool>;  // for each plugin of a boot whether it is in the set

enum class Direction { Before, After, Both };

constexpr std::size_t kAnyDistance = std::numeric_limits<std::size_t>::max();

// The plugins that they wait for, or that wait for them, or both, over at most that many barriers; they are in the set
// themselves. The way ends at plugins that are kept out: they wait for nobody, and nobody waits for them.
PluginSet Reach(const Boot& boot, const std::vector<PluginIndex>& from, Direction direction, std::size_t distance);

// Several when names are not unique, none when the name is unknown.
std::vector<PluginIndex> PluginsNamed(const Boot& boot, const std::string& name);

}  // namespace lofter::analyze
