#include "graph/Barriers.h"

#include <algorithm>
#include <map>
#include <memory>

#include "Logging.h"
#include "Settings.h"
#include "graph/NodeStore.h"
#include "krxctl/SystemInfoImpl.h"

namespace lofter {

namespace {

struct Registry {
    std::map<std::string, InitBarrier*> barriers;
    std::vector<std::uint32_t> priorities;  // of every priority barrier, ascending
};

// Never destroyed, like the barriers in it.
Registry& TheRegistry() {
    static auto* registry = new Registry;
    return *registry;
}

std::string PriorityBarrierName(std::uint32_t priority) {
    return "_<->_priority_<->_" + std::to_string(priority);
}

void RaiseSystemAlert(const std::string& message) {
    try {
        KrxCtl::System::SystemInfoImpl().SetSystemAlert(message);
    } catch (const std::exception& e) {
        Log_Level(kWarning, "unable to raise the system alert: %s\n", e.what());
    }
}

}  // namespace

InitBarrier::InitBarrier(const std::string& barrierName) : Node(barrierName, kDefaultClass) {}

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
    if (!Settings::Instance().invoke) {
        RaiseSystemAlert(message);
    }
    Log_Level(kWarning, "%s\n", message.c_str());
}

// Between the groups of the next lower and the next higher priority. The plugins of the higher group keep the links
// that they already have to the barrier in front of this one.
PriorityBarrier::PriorityBarrier(std::uint32_t ownPriority)
    : InitBarrier(PriorityBarrierName(ownPriority)), priority(ownPriority) {
    GraphLock lock;
    try {
        TakePlace();
    } catch (...) {
        // Short of memory. What is not made must not be found again.
        TheRegistry().barriers.erase(Name());
        std::erase(TheRegistry().priorities, priority);
        throw;
    }
}

void PriorityBarrier::TakePlace() {
    RegisterBarrier(this, Name());

    std::vector<std::uint32_t>& priorities = TheRegistry().priorities;
    const auto place = priorities.insert(std::lower_bound(priorities.begin(), priorities.end(), priority), priority);
    if (place != priorities.begin()) {
        AddDependency(*GetBarrier(PriorityBarrierName(*(place - 1)), false));
    }
    if (place + 1 != priorities.end()) {
        InitBarrier* next = GetBarrier(PriorityBarrierName(*(place + 1)), false);
        std::vector<Node*> followers;
        std::copy_if(next->Dependencies().begin(), next->Dependencies().end(), std::back_inserter(followers),
                     [](Node* node) { return dynamic_cast<InitBarrier*>(node) == nullptr; });
        followers.push_back(next);
        for (Node* follower : followers) {
            AddDependent(*follower);
        }
    }
}

void PriorityBarrier::AddPlugin(Node& plugin) {
    GraphLock lock;
    const std::vector<std::uint32_t>& priorities = TheRegistry().priorities;
    auto index = static_cast<std::size_t>(priorityIndex);
    if (priorityIndex < 0 || index >= priorities.size() || priorities[index] != priority) {
        index =
            static_cast<std::size_t>(std::find(priorities.begin(), priorities.end(), priority) - priorities.begin());
        priorityIndex = static_cast<std::int32_t>(index);
    }
    if (index > 0) {
        GetBarrier(PriorityBarrierName(priorities[index - 1]), false)->AddDependent(plugin);
    }
    AddDependency(plugin);
}

InitBarrier* GetBarrier(const std::string& name, bool create) {
    GraphLock lock;
    const auto found = TheRegistry().barriers.find(name);
    if (found != TheRegistry().barriers.end()) {
        return found->second;
    }
    if (!create) {
        return nullptr;
    }
    InitBarrier* barrier = NodeStore::Keep(std::make_unique<InitBarrier>(name));
    RegisterBarrier(barrier, name);
    return barrier;
}

void RegisterBarrier(InitBarrier* barrier, const std::string& name) {
    GraphLock lock;
    TheRegistry().barriers[name] = barrier;
}

std::vector<InitBarrier*> AllBarriers() {
    GraphLock lock;
    std::vector<InitBarrier*> barriers;
    barriers.reserve(TheRegistry().barriers.size());
    for (const auto& [name, barrier] : TheRegistry().barriers) {
        barriers.push_back(barrier);
    }
    return barriers;
}

PriorityBarrier* GetPriorityBarrier(std::uint32_t priority) {
    GraphLock lock;
    auto* barrier = dynamic_cast<PriorityBarrier*>(GetBarrier(PriorityBarrierName(priority), false));
    if (barrier == nullptr) {
        NodeStore::MakeRoom();  // it is registered when it is made, and must be kept then
        barrier = NodeStore::Keep(std::make_unique<PriorityBarrier>(priority));
    }
    return barrier;
}

void ForgetGraph() {
    GraphLock lock;
    TheRegistry() = Registry{};
    NodeStore::Clear();
}

}  // namespace lofter
