#include "hopper/LegacyDaemonPlugin.h"

#include "graph/Barriers.h"
#include "graph/GraphLock.h"
#include "plugins/Exception.h"

namespace lofter {

LegacyDaemonPlugin::LegacyDaemonPlugin(const std::string& daemonName, const std::string& scriptPath,
                                       std::uint32_t startPriority)
    : DaemonPlugin(daemonName, startPriority, kInitScriptClass) {
    const GraphLock lock;
    GetPriorityBarrier(startPriority)->AddPlugin(*this);
    operations = {{kStart, scriptPath + " start"}, {kStop, scriptPath + " stop"}};
}

void LegacyDaemonPlugin::ApplyHostProfile() {
    throw NotImplementedException("LegacyDaemonPlugin::ApplyHostProfile");
}

}  // namespace lofter
