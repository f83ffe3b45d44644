// The daemon plugin of one init.d script: the script is run with the argument "start" or "stop".
#pragma once

#include <cstdint>
#include <string>

#include "hopper/DaemonPlugin.h"

namespace lofter {

class LegacyDaemonPlugin : public DaemonPlugin {
  public:
    LegacyDaemonPlugin(const std::string& name, const std::string& scriptPath, std::uint32_t startPriority,
                       const CommandSettings& settings, Activator& pluginActivator);

    void ApplyHostProfile() override;
};

}  // namespace lofter
