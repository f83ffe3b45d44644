// A native plugin: a shared object that exports a block of metadata and a table of operations.
//
// The object is loaded only while it is described, in a process of its own. The operations run in the native executor
// program, one process for each call, so a plugin that crashes fails alone. Several plugins may run their operations at
// once.
#pragma once

#include <string>

#include "plugins/Plugin.h"

namespace lofter {

class NativePlugin : public Plugin {
  public:
    using Plugin::Plugin;

    // These wait for the operation to end, however long that takes.
    void StartPlugin() override;
    bool HasApplyHostProfile() const override { return Description().hasHostProfileOperation; }
    void ApplyHostProfile() override;

  private:
    void RunOperation(const std::string& method) const;
};

}  // namespace lofter
