// A shell for the operator, on the terminal that is standard input, in the middle of a boot.
#pragma once

namespace lofter {

// Runs the shell as the leader of a session of its own that has taken the terminal over, with the standard streams as
// its only descriptors, and returns when it has ended, however it ended. The standard streams and the terminal's modes
// are then as they were before. A shell that cannot be started is logged.
void RunTroubleshootingShell(const char* program = "/bin/sh");

}  // namespace lofter
