// The debug configuration: one boot step a line, "name:requires:provides:command".
//
// The two barrier lists are separated by commas. Separators inside single or double quotes are text, as is any
// separator, quote or backslash behind a backslash; "\n" is a line end. There is no comment syntax; blank lines are
// skipped but counted.
#pragma once

#include <istream>
#include <string>
#include <vector>

#include "plugins/description/PluginDescription.h"

namespace lofter {

struct DebugConfiguration {
    // A line that is no entry, without the white space around it.
    struct SkippedLine {
        int number;  // counted from 1
        std::string text;
        std::string misuse;  // of the backslash; empty when the line has another number of fields
    };

    // In file order. Each has one start command, which is for the shell, and the interface version 1.
    std::vector<PluginDescription> entries;
    std::vector<SkippedLine> skipped;
    bool isCutShort = false;  // reading failed behind the last line
};

DebugConfiguration ParseDebugConfiguration(std::istream& input);

// Parses a file. One that cannot be opened or read, or is no regular file, has no entries.
DebugConfiguration ReadDebugConfiguration(const std::string& path);

}  // namespace lofter
