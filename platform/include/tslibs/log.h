// Logging of the host's base utility library.
//
// A message goes to every output whose level admits it. The library keeps one lock; it is fork-safe, so a child that is
// forked while other threads log can log at once. Every message is exactly one write. One line end at its end is its
// own, and is added where it is missing; standard output shows further ones as empty lines, syslog records carry none.
#pragma once

#include "tslibs/dictionary.h"

// One destination of log messages. Opaque to callers.
struct LogOutput;

// Logs one printf-style message. Levels that the host's programs use: 110 error, 115 warning, 125 information. Never
// throws and never fails visibly; errno is left as it was. Messages logged before any output exists are dropped.
void Log_Level(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Logs one message to the syslog output alone; it is dropped while there is no such output.
void Log_Syslog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Sets up the syslog output from "log.syslogID" (identifier) and "log.syslogLevel" (the finest level that is let
// through, by name: "error", "warning" or "info"). No syslog daemon need exist yet. Returns false when the dictionary
// lacks the identifier or names an unknown level.
bool Log_InitWithSyslogInt(const Dictionary* configuration);

// Makes a standard-output log output from "log.stdoutLevel", "log.useTimeStamps.stdio" and "log.useMilliseconds.stdio".
// Null when the level is unknown. The caller owns the result until Log_AddOutput takes it.
LogOutput* Log_NewStdioOutput(const Dictionary* configuration);

// Adds an output and takes ownership of it. Returns false for null or for an output that was added before.
bool Log_AddOutput(LogOutput* output);

// Messages whose level is at or below this one are copied to standard error as well; -1 copies none.
void Log_SetStderrLevel(int level);

// What product this is. A panic names it after its message; ordinary runs log no line about it.
void Log_SetProductInfo(const char* name, const char* version, const char* build, const char* compilationOption);
