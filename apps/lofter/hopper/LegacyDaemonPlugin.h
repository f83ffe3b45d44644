// The daemon plugin of one init.d script: the script is run with the argument "start" or "stop". Its node joins the
// group of its start priority while it is constructed.
#pragma once

#include <cstdint>
#include <string>

#include "hopper/DaemonPlugin.h"

namespace lofter {

class LegacyDaemonPlugin : public DaemonPlugin {
  public:
    // Takes the graph lock.
    LegacyDaemonPlugin(const std::string& name, const std::string& scriptPath, std::uint32_t priority);

    void ApplyHostProfile() override;
};

}  // namespace lofter
