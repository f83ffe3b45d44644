#include "graph/Graph.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace lofter {

Graph::~Graph() = default;

Node& Graph::Keep(std::unique_ptr<Node> node) {
    GraphLock lock;
    return *nodes.emplace_back(std::move(node));
}

std::size_t Graph::Size() const {
    GraphLock lock;
    return nodes.size();
}

InitBarrier* Graph::GetBarrier(const std::string& name, bool create) {
    GraphLock lock;
    const auto found = barriers.find(name);
    if (found != barriers.end()) {
        return found->second;
    }
    if (!create) {
        return nullptr;
    }
    InitBarrier& barrier = Add(std::make_unique<InitBarrier>(name, settings));
    RegisterBarrier(&barrier, name);
    return &barrier;
}

void Graph::RegisterBarrier(InitBarrier* barrier, const std::string& name) {
    GraphLock lock;
    barriers[name] = barrier;
}

std::vector<InitBarrier*> Graph::AllBarriers() const {
    GraphLock lock;
    std::vector<InitBarrier*> all;
    all.reserve(barriers.size());
    for (const auto& [name, barrier] : barriers) {
        all.push_back(barrier);
    }
    return all;
}

PriorityBarrier* Graph::GetPriorityBarrier(std::uint32_t priority) {
    GraphLock lock;
    const std::string name = PriorityBarrier::NameOf(priority);
    const auto earlier = barriers.find(name);
    if (earlier != barriers.end()) {
        if (auto* barrier = dynamic_cast<PriorityBarrier*>(earlier->second)) {
            return barrier;
        }
    }
    PriorityBarrier& barrier = Add(std::make_unique<PriorityBarrier>(*this, priority, settings));
    try {
        TakePlace(barrier);
    } catch (...) {
        // Short of memory. What has no place must not be found again.
        barriers.erase(name);
        std::erase(priorities, priority);
        throw;
    }
    return &barrier;
}

// Between the groups of the next lower and the next higher priority. The plugins of the higher group keep the links
// that they already have to the barrier in front of this one.
void Graph::TakePlace(PriorityBarrier& barrier) {
    const std::uint32_t priority = barrier.Priority();
    RegisterBarrier(&barrier, barrier.Name());
    const auto place = priorities.insert(std::lower_bound(priorities.begin(), priorities.end(), priority), priority);
    if (place != priorities.begin()) {
        barrier.AddDependency(*GetBarrier(PriorityBarrier::NameOf(*(place - 1)), false));
    }
    if (place + 1 != priorities.end()) {
        InitBarrier* next = GetBarrier(PriorityBarrier::NameOf(*(place + 1)), false);
        std::vector<Node*> followers;
        std::copy_if(next->Dependencies().begin(), next->Dependencies().end(), std::back_inserter(followers),
                     [](Node* node) { return dynamic_cast<InitBarrier*>(node) == nullptr; });
        followers.push_back(next);
        for (Node* follower : followers) {
            barrier.AddDependent(*follower);
        }
    }
}

}  // namespace lofter
