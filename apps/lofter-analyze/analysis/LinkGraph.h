// The boot as one graph of plugins and barriers, and the parts of it that hold together.
#pragma once

#include <cstddef>
#include <vector>

#include "analysis/Boot.h"

namespace lofter::analyze {

// Plugins and barriers as the nodes of one graph without repeated links: plugins keep their indices, barriers follow.
// That keeps a barrier of a thousand providers and a thousand requirers at two thousand links.
class LinkGraph {
  public:
    using Node = std::size_t;
    using Links = std::vector<std::vector<Node>>;

    explicit LinkGraph(const Boot& boot);

    std::size_t Size() const { return followers.size(); }
    bool IsPlugin(Node node) const { return node < pluginCount; }
    Node NodeOf(BarrierIndex barrier) const { return pluginCount + barrier; }
    BarrierIndex BarrierOf(Node node) const { return node - pluginCount; }

    const Links& Followers() const { return followers; }
    const Links& Leaders() const { return leaders; }

  private:
    void Link(const Boot& boot, PluginIndex plugin, Node from, Node to);

    std::size_t pluginCount;
    Links followers;
    Links leaders;
};

// Nodes that lead to each other, directly or through others; most parts are one node alone.
using Part = std::vector<LinkGraph::Node>;

// The strongly connected parts, each behind those that follow it.
std::vector<Part> FindParts(const LinkGraph& graph);

}  // namespace lofter::analyze
