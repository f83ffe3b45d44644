#include "hopper/LegacyDaemonPlugin.h"

#include "graph/Barriers.h"
#include "graph/GraphLock.h"
#include "plugins/Exception.h"

namespace lofter {

LegacyDaemonPlugin::LegacyDaemonPlugin(const std::string& daemonName, const std::string& scriptPath,
                                       std::uint32_t startPriority)
    : DaemonPlugin(daemonName, startPriority, kInitScriptClass) {
    const GraphLock lock;
    PriorityBarrier* const barrier = GetPriorityBarrier(startPriority);
    operations = {{kStart, scriptPath + " start"}, {kStop, scriptPath + " stop"}};
    barrier->AddPlugin(*this);  // last: a plugin that could not be made must not be left in the graph
}

void LegacyDaemonPlugin::ApplyHostProfile() {
    throw NotImplementedException("LegacyDaemonPlugin::ApplyHostProfile");
}

}  // namespace lofter
