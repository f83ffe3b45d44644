// Runs a program of the host to its end, with nothing of the orchestrator's but its environment and working directory.
#pragma once

namespace lofter {

// Both vectors end in a null pointer; the first argument is the program's path. Standard input is /dev/null, standard
// output and error are appended to the log file, every other descriptor is closed. Returns whether the program exited
// with status 0. A program that cannot be executed is logged as "execve(<path>) failure: <reason>\n" and counts as
// status 1.
bool LaunchProgram(const char* const arguments[], char* const environment[], const char* logPath);

}  // namespace lofter
