// Makes the host's syslog daemon take up a new configuration: upgrades the configuration file where there is one, then
// sends the daemon that the pid file names user signal 1. Failures are logged.
#pragma once

#include <istream>
#include <optional>

#include <sys/types.h>

namespace lofter {

// A process id: the first thing in the text, a decimal integer above 0. What follows it is of no interest.
std::optional<pid_t> ReadProcessId(std::istream& input);

void ReloadSyslogDaemon();

}  // namespace lofter
