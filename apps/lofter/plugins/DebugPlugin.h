// A boot step from the debug configuration: a shell command between barriers.
//
// The command delays or disturbs the boot at a chosen point of the graph but never fails it: a command that does not
// end with status 0 is logged as "debug injection '<name>' returned <wait status>\n", and that is all.
#pragma once

#include "plugins/Plugin.h"

namespace lofter {

class DebugPlugin : public Plugin {
  public:
    using Plugin::Plugin;

    void StartPlugin() override;
    bool HasApplyHostProfile() const override { return false; }
    void ApplyHostProfile() override;
};

}  // namespace lofter
