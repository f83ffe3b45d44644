// Nodes that live as long as the process: barriers, plugins, and the stand-ins of destroyed nodes.
//
// Links between nodes are plain pointers. They stay valid because whatever was linked is kept here, reachable to the
// end: also a plugin that discovery rejected, since its edges were recorded when it was constructed.
#pragma once

#include <memory>

#include "graph/Node.h"

namespace lofter {

class NodeStore {
  public:
    // Takes ownership for the life of the process and returns the node.
    template <typename NodeType>
    static NodeType* Keep(std::unique_ptr<NodeType> node) {
        return static_cast<NodeType*>(KeepNode(std::move(node)));
    }

    // Keeping one more node will not fail for want of memory.
    static void MakeRoom();

    // Destroys every kept node. For tests and benchmarks, which build one graph after another.
    static void Clear();

  private:
    friend class Node;

    static Node* KeepNode(std::unique_ptr<Node> node);

    // Puts a node of the same name, which counts as started, into every link of a node that is being destroyed. When
    // memory runs out the links are removed instead.
    static void LeaveStandIn(Node& leaving) noexcept;
};

}  // namespace lofter
