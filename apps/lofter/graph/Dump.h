// Writes the graph as a Graphviz digraph. Nodes are identified by their addresses in decimal; edges point from a node
// to the nodes that wait for it. Every line is flushed; write errors are ignored.
#pragma once

#include <ostream>
#include <vector>

#include "graph/Graph.h"

namespace lofter {

// The node's statement, then one statement for each edge to a dependent.
void DumpNode(const Node& node, std::ostream& output);

// The given nodes in their order, then every registered barrier of the graph in name order.
void DumpGraph(const Graph& graph, const std::vector<Node*>& nodes, std::ostream& output);

}  // namespace lofter
