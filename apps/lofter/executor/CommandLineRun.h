// One command line, from its text to its status. Part of the command executor process.
#pragma once

#include <cstdint>
#include <string>

namespace lofter {

// Parses the line and runs it through the dispatcher. Returns 0 when it was parsed and ran without error, or when there
// was nothing to run; 1 otherwise, with the reasons in the log.
std::int32_t RunCommandLine(const std::string& command);

}  // namespace lofter
