#include "graph/ReadyQueue.h"

#include <cstdlib>
#include <limits>

namespace lofter {

void ReadyQueue::Push(Node& node) {
    const std::int64_t depth = node.State() == NodeState::StartQueued ? node.DependentDepth() : node.DependencyDepth();
    nodes.insert({Rank(node.ScheduleClass(), -depth, arrivals++), &node});
}

Node& ReadyQueue::Take(bool random) {
    auto taken = nodes.begin();
    if (random) {
        const auto& [bestClass, bestDepth, arrival] = taken->first;
        const std::size_t candidates =
            nodes.order_of_key(Rank(bestClass, bestDepth, std::numeric_limits<std::uint64_t>::max()));
        taken = nodes.find_by_order(static_cast<std::size_t>(std::rand()) % candidates);
    }
    Node& node = *taken->second;
    nodes.erase(taken);
    return node;
}

}  // namespace lofter
