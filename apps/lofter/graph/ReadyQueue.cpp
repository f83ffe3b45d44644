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
    heap.push_back({node.ScheduleClass(), depth, ++arrivals, &node});
    std::push_heap(heap.begin(), heap.end(), IsWorse);
}

// A random pick comes to the front of the heap as if it had waited longest: that moves it and its ancestors only.
Node& ReadyQueue::Take(bool random) {
    if (random) {
        const auto picked = heap.begin() + static_cast<std::ptrdiff_t>(RandomBest());
        picked->arrival = kBeforeEveryOther;
        std::push_heap(heap.begin(), picked + 1, IsWorse);
    }
    std::pop_heap(heap.begin(), heap.end(), IsWorse);
    Node& node = *heap.back().node;
    heap.pop_back();
    return node;
}

std::size_t ReadyQueue::RandomBest() {
    const Entry best = heap.front();
    candidates.clear();
    for (std::size_t index = 0; index < heap.size(); ++index) {
        if (heap[index].IsAsGoodAs(best)) {
            candidates.push_back({heap[index].arrival, index});
        }
    }
    const auto picked =
        candidates.begin() + static_cast<std::ptrdiff_t>(static_cast<std::size_t>(std::rand()) % candidates.size());
    std::nth_element(candidates.begin(), picked, candidates.end(),
                     [](const Candidate& left, const Candidate& right) { return left.arrival < right.arrival; });
    return picked->index;
}

}  // namespace lofter
