// A native plugin: a shared object that exports a block of metadata and a table of operations.
//
// The object is loaded into this process only while the plugin is constructed, to read the metadata and to see which
// operations there are. The operations themselves run in the native executor program, one process for each call, so a
// plugin that crashes fails alone. Opening the object does run its constructors here: one that may end the process that
// loads it is tried first, see ObjectTrial.h.
//
// Several plugins may run their operations at once.
#pragma once

#include <string>

#include "plugins/Plugin.h"

namespace lofter {

class NativePlugin : public Plugin {
  public:
    // Reads the object and links the plugin to its barriers, the provided ones first. Throws InvalidPluginException
    // with the loader's reason when the object cannot be opened and with "Unsupported API version" when its interface
    // is not one of 1 to 4; Exception "Failed loading symbol: <symbol> Located at: <path> Reason: <reason>" when it
    // lacks a symbol.
    NativePlugin(const std::string& pluginName, const std::string& objectPath);

    // These wait for the operation to end, however long that takes.
    void StartPlugin() override;
    bool HasApplyHostProfile() const override;
    void ApplyHostProfile() override;

  private:
    void RunOperation(const std::string& method) const;

    bool hasHostProfileOperation = false;
    const std::string path;
};

}  // namespace lofter
