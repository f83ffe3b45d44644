#include "graph/Dump.h"

#include <cstdint>

namespace lofter {

namespace {

std::uint64_t Identifier(const Node& node) {
    return reinterpret_cast<std::uintptr_t>(&node);
}

}  // namespace

void DumpNode(const Node& node, std::ostream& output) {
    output << Identifier(node) << " [label=\"" << node.Name() << '"' << node.DotAttributes() << "];" << std::endl;
    GraphLock lock;
    for (const Node* dependent : node.Dependents()) {
        output << Identifier(node) << " -> " << Identifier(*dependent) << ';' << std::endl;
    }
}

void DumpGraph(const Graph& graph, const std::vector<Node*>& nodes, std::ostream& output) {
    output << "digraph g {\n";
    for (const Node* node : nodes) {
        DumpNode(*node, output);
    }
    for (const InitBarrier* barrier : graph.AllBarriers()) {
        DumpNode(*barrier, output);
    }
    output << "}\n";
    output.flush();
}

}  // namespace lofter
