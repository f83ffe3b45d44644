// What is worth saying about how plugins are tied together: rules "cycle", "missing-provider", "duplicate-name",
// "unused-barrier" and "kept-out".
#pragma once

#include <vector>

#include "analysis/Boot.h"
#include "analysis/Finding.h"

namespace lofter::analyze {

// A dump holds nothing of what is kept out, so a barrier may have providers that it does not show.
enum class GraphSource { Host, Dump };

std::vector<Finding> FindInGraph(const Boot& boot, GraphSource source);

}  // namespace lofter::analyze
