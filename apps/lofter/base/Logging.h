// Logging set-up, the levels in use, and the standard streams of child processes.
//
// Messages are logged with Log_Level(level, format, ...) of the base library. Text from outside is never the format.
#pragma once

#include <string>

#include "tslibs/log.h"
#include "tslibs/warning.h"

namespace lofter {

enum LogLevel : int { kError = 110, kWarning = 115, kInfo = 125 };

// Sends log lines to syslog under the identifier and to standard output with time stamps. Called once, first thing
// after the settings record exists. Throws Exception with "Failed to initialize logging to syslog.\n", "Failed creating
// standard out logging interface.\n" or "Failed adding standard out logging interface.\n".
void InitializeLogging(const std::string& identifier);

// Points standard input at /dev/null, and standard output and error at the log file, which is created (mode 644) or
// appended to. A link or a pipe in the log file's place cannot be opened; a device can. For freshly forked children.
// Failures are warnings; the streams concerned stay as they are.
void RedirectStandardStreams(const std::string& logPath);

}  // namespace lofter
