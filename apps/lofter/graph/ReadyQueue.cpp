#include "graph/ReadyQueue.h"

#include <algorithm>
#include <cstdlib>
#include <tuple>

namespace lofter {

bool ReadyQueue::IsWorse(const Entry& left, const Entry& right) {
    return std::tuple(left.scheduleClass, right.depth, left.arrival) >
           std::tuple(right.scheduleClass, left.depth, right.arrival);
}

void ReadyQueue::Reserve(std::size_t nodes) {
    heap.reserve(nodes);
    candidates.reserve(nodes);
}

void ReadyQueue::Push(Node& node) {
    const std::int32_t depth = node.State() == NodeState::StartQueued ? node.DependentDepth() : node.DependencyDepth();
    heap.push_back({node.ScheduleClass(), depth, arrivals++, &node});
    std::push_heap(heap.begin(), heap.end(), IsWorse);
}

Node& ReadyQueue::Take(bool random) {
    if (random) {
        const auto picked = RandomBest();
        Node& node = *picked->node;
        *picked = heap.back();
        heap.pop_back();
        std::make_heap(heap.begin(), heap.end(), IsWorse);
        return node;
    }
    std::pop_heap(heap.begin(), heap.end(), IsWorse);
    Node& node = *heap.back().node;
    heap.pop_back();
    return node;
}

ReadyQueue::Heap::iterator ReadyQueue::RandomBest() {
    const Entry best = heap.front();
    candidates.clear();
    for (const Entry& entry : heap) {
        if (entry.IsAsGoodAs(best)) {
            candidates.push_back(entry.arrival);
        }
    }
    const auto picked =
        candidates.begin() + static_cast<std::ptrdiff_t>(static_cast<std::size_t>(std::rand()) % candidates.size());
    std::nth_element(candidates.begin(), picked, candidates.end());
    return std::find_if(heap.begin(), heap.end(), [&](const Entry& entry) { return entry.arrival == *picked; });
}

}  // namespace lofter
