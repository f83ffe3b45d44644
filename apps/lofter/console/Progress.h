// What the host's progress screen shows while plugins are activated.
#pragma once

namespace lofter {

void ShowProgress();

// Nothing, until it is shown again.
void ClearProgress();

}  // namespace lofter
