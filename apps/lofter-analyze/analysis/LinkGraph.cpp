#include "analysis/LinkGraph.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace lofter::analyze {

namespace {

using Node = LinkGraph::Node;

// The strongly connected parts, by Tarjan's algorithm; its path is kept here, not on the stack.
class PartSearch {
  public:
    explicit PartSearch(const LinkGraph& linkGraph)
        : links(linkGraph.Followers()), order(linkGraph.Size(), 0), lowest(linkGraph.Size(), 0) {
        for (Node node = 0; node < links.size(); ++node) {
            if (order[node] == 0) {
                WalkFrom(node);
            }
        }
    }

    std::vector<Part> parts;

  private:
    struct Visit {
        Node node;
        std::size_t nextLink;
    };
    static constexpr std::size_t kClosed = std::numeric_limits<std::size_t>::max();

    void Enter(Node node) {
        order[node] = lowest[node] = ++entered;
        open.push_back(node);
        path.push_back({node, 0});
    }

    void WalkFrom(Node first) {
        Enter(first);
        while (!path.empty()) {
            Visit& visit = path.back();
            const Node node = visit.node;
            if (visit.nextLink < links[node].size()) {
                const Node follower = links[node][visit.nextLink++];
                if (order[follower] == 0) {
                    Enter(follower);
                } else if (order[follower] != kClosed) {
                    lowest[node] = std::min(lowest[node], order[follower]);
                }
                continue;
            }
            path.pop_back();
            if (!path.empty()) {
                lowest[path.back().node] = std::min(lowest[path.back().node], lowest[node]);
            }
            if (lowest[node] == order[node]) {
                Close(node);
            }
        }
    }

    void Close(Node first) {
        Part part;
        do {
            part.push_back(open.back());
            order[open.back()] = kClosed;
            open.pop_back();
        } while (part.back() != first);
        parts.push_back(std::move(part));
    }

    const LinkGraph::Links& links;
    std::vector<std::size_t> order;  // in which nodes were entered, from 1; 0 before that
    std::vector<std::size_t> lowest;
    std::vector<Node> open;
    std::vector<Visit> path;
    std::size_t entered = 0;
};

}  // namespace

LinkGraph::LinkGraph(const Boot& boot)
    : pluginCount(boot.plugins.size()), followers(pluginCount + boot.barriers.size()), leaders(followers.size()) {
    for (BarrierIndex barrier = 0; barrier < boot.barriers.size(); ++barrier) {
        for (const PluginIndex provider : boot.barriers[barrier].providers) {
            Link(boot, provider, provider, NodeOf(barrier));
        }
        for (const PluginIndex requirer : boot.barriers[barrier].requirers) {
            Link(boot, requirer, NodeOf(barrier), requirer);
        }
    }
}

void LinkGraph::Link(const Boot& boot, PluginIndex plugin, Node from, Node to) {
    if (boot.plugins[plugin].Runs()) {
        followers[from].push_back(to);
        leaders[to].push_back(from);
    }
}

std::vector<Part> FindParts(const LinkGraph& graph) {
    return std::move(PartSearch(graph).parts);
}

}  // namespace lofter::analyze
