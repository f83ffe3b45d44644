#include "hopper/LegacyDaemonPlugin.h"

#include "base/Exception.h"

namespace lofter {

LegacyDaemonPlugin::LegacyDaemonPlugin(const std::string& daemonName, const std::string& scriptPath,
                                       std::uint32_t startPriority, const CommandSettings& settings,
                                       Activator& pluginActivator)
    : DaemonPlugin(daemonName, startPriority, kInitScriptClass, settings, pluginActivator) {
    operations = {{kStart, scriptPath + " start"}, {kStop, scriptPath + " stop"}};
}

void LegacyDaemonPlugin::ApplyHostProfile() {
    throw NotImplementedException("LegacyDaemonPlugin::ApplyHostProfile");
}

}  // namespace lofter
