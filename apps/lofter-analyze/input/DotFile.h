// A dependency tree as lofter dumps it, for a host that is far away.
#pragma once

#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "analysis/Boot.h"

namespace lofter::analyze {

// The plugins in the dump's order; their places are lines of it. What was kept out has no statement of its own: edges
// that lead to it make it a plugin that counts as started, behind all others, named by its identifier. A line that is
// none of a dump is lost alone. Warnings show the dump by the name that is given. Throws InputError for what is no
// dump at all.
std::vector<BootPlugin> ParseDotFile(std::string_view content, const std::string& shownName,
                                     std::ostream& warningOutput);

}  // namespace lofter::analyze
