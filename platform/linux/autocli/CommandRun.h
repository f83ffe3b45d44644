// One run of a host command's program.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace platform {

// How much of a command's standard error is kept; what it writes beyond that is read and dropped.
inline constexpr std::size_t kKeptErrorText = std::size_t{64} * 1024;

// Runs the program with those arguments and waits until its process has ended. It gets standard input from /dev/null,
// the caller's standard output, QORCLI_DISPATCHER in its environment, and default signal dispositions.
//
// Returns what went wrong: one text per line of its standard error when it failed, or one that says how it ended when
// it wrote none; nothing when it succeeded. Its standard error goes to the caller's when it succeeded; and so does,
// whatever became of it, what processes that it left behind write later.
std::vector<std::string> RunCommand(const std::string& program, const std::vector<std::string>& arguments,
                                    const std::string& dispatcher);

}  // namespace platform
