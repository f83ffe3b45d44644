// The dependency graph: its nodes, the barriers through which plugins find each other, and the priorities of daemons.
//
// What is added lives as long as the graph, linked or not: links between nodes are plain pointers, and whoever looks
// along one finds a node. Barriers are created on first mention. Any number of graphs may live in one process; all of
// them are guarded by the one graph lock, which every operation here takes for itself.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "graph/Barriers.h"
#include "graph/Node.h"

namespace lofter {

struct Settings;

class Graph {
  public:
    // The settings say whether a barrier that nobody provides is worth an alert. They outlive the graph.
    explicit Graph(const Settings& runSettings) : settings(runSettings) {}
    ~Graph();
    Graph(const Graph&) = delete;
    Graph& operator=(const Graph&) = delete;

    // Takes ownership of the node and returns it.
    template <std::derived_from<Node> NodeType>
    NodeType& Add(std::unique_ptr<NodeType> node) {
        return static_cast<NodeType&>(Keep(std::move(node)));
    }

    // How many nodes there are, barriers included.
    std::size_t Size() const;

    // The node starts after the named barrier, or the barrier after the node.
    void Require(Node& node, const std::string& barrier) { node.AddDependency(*GetBarrier(barrier, true)); }
    void Provide(Node& node, const std::string& barrier) { node.AddDependent(*GetBarrier(barrier, true)); }

    // The barrier of that name; null, or a new one if `create` says so, when there is none.
    InitBarrier* GetBarrier(const std::string& name, bool create);

    // Makes a barrier of this graph the entry for the name. An earlier entry is replaced but lives on, since nodes may
    // be linked to it.
    void RegisterBarrier(InitBarrier* barrier, const std::string& name);

    // Every registered barrier, in byte-wise order of the names.
    std::vector<InitBarrier*> AllBarriers() const;

    // The barrier of that priority, created in its place between the next lower and the next higher one when there is
    // none.
    PriorityBarrier* GetPriorityBarrier(std::uint32_t priority);

    // Of every priority barrier, ascending. The caller holds the graph lock.
    const std::vector<std::uint32_t>& Priorities() const { return priorities; }

  private:
    Node& Keep(std::unique_ptr<Node> node);
    void TakePlace(PriorityBarrier& barrier);

    const Settings& settings;
    std::vector<std::unique_ptr<Node>> nodes;
    std::map<std::string, InitBarrier*> barriers;
    std::vector<std::uint32_t> priorities;
};

}  // namespace lofter
