// Durations in arguments: an integer and "us", "ms" or "s".
#pragma once

#include <optional>
#include <string_view>

#include "analysis/Boot.h"

namespace lofter::analyze {

// Nothing for other texts, and for more than about thirty years.
std::optional<Microseconds> ParseDuration(std::string_view text);

}  // namespace lofter::analyze
