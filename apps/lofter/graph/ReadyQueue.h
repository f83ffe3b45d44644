// The nodes that are ready to run, in the order in which the executor takes them.
//
// The best node has the lowest schedule class, then the greatest depth (the longest chain of nodes that wait behind
// it), then has waited longest. With randomization, any node that equals the best in class and depth may be taken. A
// node is ranked when it becomes ready; nothing that ranks it changes afterwards. Adding and taking cost the logarithm
// of the queue's length, and neither needs memory. Guarded by the graph lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <tuple>

#include <ext/pb_ds/assoc_container.hpp>
#include <ext/pb_ds/tree_policy.hpp>

#include "graph/Node.h"
#include "graph/QueueSlot.h"

namespace lofter {

class ReadyQueue {
  public:
    bool Empty() const { return nodes.empty(); }

    // The node is queued for starting or for stopping, which decides whose depth counts: that of its dependents, or
    // that of its dependencies.
    void Push(Node& node);

    // Removes and returns the best node: the one that waited longest or, when `random`, the one of the best nodes whose
    // index in waiting order is rand() modulo their number. The queue is not empty.
    Node& Take(bool random);

  private:
    using Rank = std::tuple<std::uint32_t, std::int64_t, std::uint64_t>;  // class, negated depth, arrival
    using Ranking = __gnu_pbds::tree<Rank, Node*, std::less<>, __gnu_pbds::rb_tree_tag,
                                     __gnu_pbds::tree_order_statistics_node_update, QueueSlotAllocator<char>>;

    QueueSlot own;  // for the root of the tree
    Ranking nodes;
    std::uint64_t arrivals = 0;
};

}  // namespace lofter
