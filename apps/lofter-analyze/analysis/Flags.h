// What boot flags do to a host's plugins.
#pragma once

#include <string>
#include <vector>

#include "analysis/Boot.h"

namespace lofter::analyze {

struct FlagEffect {
    std::string flag;
    std::vector<PluginIndex> letsIn;       // that require it
    std::vector<PluginIndex> keepsOut;     // that it disables
    std::vector<BarrierIndex> unprovided;  // required ones whose every provider it keeps out
};

// Of every flag that a plugin names, in the order of their names. Rejected plugins are not asked.
std::vector<FlagEffect> FindFlags(const Boot& boot);

}  // namespace lofter::analyze
