#include "graph/Barriers.h"

#include <algorithm>
#include <cstddef>
#include <vector>

#include "base/Logging.h"
#include "base/Settings.h"
#include "graph/Graph.h"
#include "krxctl/SystemInfoImpl.h"

namespace lofter {

namespace {

void RaiseSystemAlert(const std::string& message) {
    try {
        KrxCtl::System::SystemInfoImpl().SetSystemAlert(message);
    } catch (const std::exception& e) {
        Log_Level(kWarning, "unable to raise the system alert: %s\n", e.what());
    }
}

}  // namespace

InitBarrier::InitBarrier(const std::string& barrierName, const Settings& runSettings)
    : Node(barrierName, kDefaultClass), settings(runSettings) {}

void InitBarrier::Start() {
    Contain([this] { ReportIfUnprovided(); });
}

void InitBarrier::ReportIfUnprovided() const {
    std::string message;
    {
        GraphLock lock;
        if (!Dependencies().empty()) {
            return;
        }
        message = "Lofter dependency error: Initialization barrier \"" + Name() +
                  "\" is not provided by any plugin but the following plugins require it: ";
        const char* separator = "";
        for (const Node* dependent : Dependents()) {
            message += separator;
            message += '"' + dependent->Name() + '"';
            separator = ", ";
        }
    }
    if (!settings.invoke) {
        RaiseSystemAlert(message);
    }
    Log_Level(kWarning, "%s\n", message.c_str());
}

std::string PriorityBarrier::NameOf(std::uint32_t priority) {
    return "_<->_priority_<->_" + std::to_string(priority);
}

PriorityBarrier::PriorityBarrier(Graph& owner, std::uint32_t ownPriority, const Settings& runSettings)
    : InitBarrier(NameOf(ownPriority), runSettings), graph(owner), priority(ownPriority) {}

void PriorityBarrier::AddPlugin(Node& plugin) {
    GraphLock lock;
    const std::vector<std::uint32_t>& priorities = graph.Priorities();
    auto index = static_cast<std::size_t>(priorityIndex);
    if (priorityIndex < 0 || index >= priorities.size() || priorities[index] != priority) {
        index =
            static_cast<std::size_t>(std::find(priorities.begin(), priorities.end(), priority) - priorities.begin());
        priorityIndex = static_cast<std::int32_t>(index);
    }
    if (index > 0) {
        graph.GetBarrier(NameOf(priorities[index - 1]), false)->AddDependent(plugin);
    }
    AddDependency(plugin);
}

}  // namespace lofter
