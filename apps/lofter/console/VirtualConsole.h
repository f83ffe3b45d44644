// The host's virtual terminals: which one the console shows.
#pragma once

#include "base/Paths.h"

namespace lofter {

// The terminal on which the operator is asked, and the one that shows the boot's progress.
inline constexpr int kPromptTerminal = 1;
inline constexpr int kProgressTerminal = 11;

// Shows the given virtual terminal. Silent when there is no console, or when it has no virtual terminals.
void SwitchConsole(int terminal, const char* console = paths::kConsole);

}  // namespace lofter
