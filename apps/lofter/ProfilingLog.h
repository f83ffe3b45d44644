// The profiling log: when the host's kernel started, when each plugin ran, and with which settings.
//
// A boot or plain run replaces the file with its section; a daemon run appends its own. The file is put in place in one
// step, so a reader never sees half a log. Failures are logged and never thrown: they do not change how the run ends.
#pragma once

#include <deque>
#include <ostream>
#include <string>

#include <sys/time.h>

namespace lofter {

class Plugin;
struct Settings;

struct RunTimes {
    timeval start{};           // before option parsing
    timeval end{};             // after execution
    unsigned long uptime = 0;  // of the host's kernel at the start, in whole seconds
};

// "YYYY-MM-DD hh:mm:ss.uuuuuu" in UTC.
std::string FormatTime(const timeval& time);

void WriteBootSection(std::ostream& output, const RunTimes& times, const std::deque<Plugin*>& plugins,
                      const Settings& settings);
void WriteDaemonSection(std::ostream& output, const RunTimes& times, const std::deque<Plugin*>& plugins,
                        const Settings& settings);

// Replaces the log. On failure logs "unable to open profiling log (<path>): <reason>.\n" or
// "unable to log profiling information: <reason>.\n".
void LogBootProfile(const char* path, const RunTimes& times, const std::deque<Plugin*>& plugins,
                    const Settings& settings);

// Appends to the log, which must exist. On failure logs "unable to reopen profiling log (<path>): <reason>.\n" or
// "unable to log daemon profiling information: <reason>.\n".
void LogDaemonProfile(const char* path, const RunTimes& times, const std::deque<Plugin*>& plugins,
                      const Settings& settings);

}  // namespace lofter
