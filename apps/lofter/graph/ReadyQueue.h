// The nodes that are ready to run, in the order in which the executor takes them.
//
// The best node has the lowest schedule class, then the greatest depth (the longest chain of nodes that wait behind
// it), then has waited longest. With randomization, any node that equals the best in class and depth may be taken. A
// node is ranked when it becomes ready; nothing that ranks it changes afterwards.
//
// A heap: adding and taking cost the logarithm of the queue's length, a random pick looks at every node. Where room was
// reserved for as many nodes as there are, neither needs memory: a worker that finishes a node queues those behind it,
// and could tell nobody if memory ran out there. Guarded by the graph lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "graph/Node.h"

namespace lofter {

class ReadyQueue {
  public:
    bool Empty() const { return heap.empty(); }

    // Room for that many nodes at once. Throws std::bad_alloc.
    void Reserve(std::size_t nodes);

    // The node is queued for starting or for stopping, which decides whose depth counts: that of its dependents, or
    // that of its dependencies.
    void Push(Node& node);

    // Removes and returns the best node: the one that waited longest or, when `random`, the one of the best nodes whose
    // index in waiting order is rand() modulo their number. Nobody seeds rand(), on purpose: on one thread, every
    // random run of a graph takes the same order. The queue is not empty.
    Node& Take(bool random);

  private:
    struct Entry {
        std::uint32_t scheduleClass;
        std::int32_t depth;
        std::uint64_t arrival;
        Node* node;

        bool IsAsGoodAs(const Entry& other) const {
            return scheduleClass == other.scheduleClass && depth == other.depth;
        }
    };
    using Heap = std::vector<Entry>;

    static bool IsWorse(const Entry& left, const Entry& right);
    std::size_t RandomBest();

    // One of the best nodes, and where it is in the heap.
    struct Candidate {
        std::uint64_t arrival;
        std::size_t index;
    };

    static constexpr std::uint64_t kBeforeEveryOther = 0;

    Heap heap;
    std::vector<Candidate> candidates;  // of one random pick
    std::uint64_t arrivals = kBeforeEveryOther;
};

}  // namespace lofter
