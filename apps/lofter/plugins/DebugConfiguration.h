// The debug configuration: one boot step a line, "name:requires:provides:command".
//
// The two barrier lists are separated by commas. Separators inside single or double quotes are text, as is any
// separator, quote or backslash behind a backslash; "\n" is a line end. There is no comment syntax; blank lines are
// skipped but counted.
#pragma once

#include <istream>
#include <string>
#include <vector>

namespace lofter {

struct DebugEntry {
    std::string name;
    std::vector<std::string> requiredBarriers;
    std::vector<std::string> providedBarriers;
    std::string command;
};

// The valid entries, in file order. A line that has another number of fields is logged as
// "ignoring malformed debug entry at line <n>: <line>\n", one that misuses the backslash as
// "skipping debug entry at line <n>: <line> (<reason>)\n"; each costs only itself. When reading fails,
// what was read counts, and the log has "unable to read all debug entries\n".
std::vector<DebugEntry> ParseDebugConfiguration(std::istream& input);

// The same for a file. One that cannot be opened or read, or is no regular file, has no entries.
std::vector<DebugEntry> ReadDebugConfiguration(const std::string& path);

}  // namespace lofter
