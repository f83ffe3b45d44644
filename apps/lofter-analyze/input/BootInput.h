// All that the options name, read and put together: the host or the dump, and the log.
#pragma once

#include <ostream>

#include "analysis/Boot.h"
#include "input/Options.h"

namespace lofter::analyze {

// A line or a plugin that cannot be read is lost alone, with a warning, "lofter-analyze: warning: <text>", a line each.
// A root without a log gives a boot without times. Throws InputError for an input that cannot be read.
Boot ReadBoot(const InputOptions& options, std::ostream& warnings);

}  // namespace lofter::analyze
