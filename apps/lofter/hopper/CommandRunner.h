// Runs one command line, typically an init.d script with "start" or "stop", and waits for its end for as long as it may
// take.
//
// The command is split at white space, without quoting or escaping; its first word is the program's path. The child
// runs in "/" with the caller's real user and group, standard input and output on /dev/null and standard error on
// /dev/log, and no other descriptor. Whatever becomes of it, it is never signalled: a child that outlives its time
// simply runs on.
// Holds no lock; any number of threads may run commands at once.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include <sys/types.h>

namespace lofter {

struct Settings;

struct CommandSettings {
    bool waitForCompletion = false;
    std::int32_t waitTimeoutSeconds = 0;  // only looked at when waiting; at 0 or below the wait has no end
    char* const* environment = nullptr;   // ends in a null pointer; not owned
};

// As the command line asks for them. Time-outs are signed from here on: one given as -1 waits without end.
CommandSettings CommandSettingsOf(const Settings& settings);

// How often a running child may be found running before its time is up: 10 seconds' worth when not waiting. A budget of
// 0 or below is never used up.
std::int64_t PollBudget(const CommandSettings& settings);

// Passes one poll interval, or less: it is over when the child has ended.
void PauseBetweenPolls(pid_t child);

// Returns when the command exited with status 0, or when it was not to be waited for and is still running after 10
// seconds. Throws Exception otherwise: the program cannot be run, exited with another status, was killed by a signal,
// or timed out. `pause` passes the time between two looks at the child.
void RunCommand(const std::string& command, const CommandSettings& settings,
                const std::function<void(pid_t child)>& pause = PauseBetweenPolls);

}  // namespace lofter
