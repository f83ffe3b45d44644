#include "analysis/Cycles.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <tuple>
#include <utility>

#include "analysis/LinkGraph.h"

namespace lofter::analyze {

namespace {

using Node = LinkGraph::Node;

// Finds the shortest loop of one part after the other. A loop counts for the smallest name in it, so plugins are looked
// at in the order of their names, those of one name together, and are gone when the next name's turn comes. Whatever
// then leads nowhere, or is not led to, goes too: a ring is looked at once, however long it is.
class LoopSearch {
  public:
    LoopSearch(const Boot& analysedBoot, const LinkGraph& linkGraph)
        : boot(analysedBoot),
          graph(linkGraph),
          isAlive(graph.Size(), false),
          waysOut(graph.Size(), 0),
          waysIn(graph.Size(), 0),
          seen(graph.Size(), 0),
          distance(graph.Size(), 0) {}

    Cycle LeastLoopOf(const Part& part) {
        Group shortest;
        std::size_t length = std::numeric_limits<std::size_t>::max();
        Revive(part, {});
        const std::vector<Group> groups = GroupsByName(part);
        for (const Group& group : groups) {
            for (const PluginIndex plugin : group) {
                const std::size_t found = isAlive[plugin] ? LoopLength(plugin, length) : length;
                if (found < length) {
                    length = found;
                    shortest = group;
                }
            }
            for (const PluginIndex plugin : group) {
                Remove(plugin);
            }
        }

        Revive(part, boot.plugins[shortest.front()].Name());
        std::vector<PluginIndex> best;
        for (const PluginIndex plugin : shortest) {
            std::vector<PluginIndex> loop = LeastLoopFrom(plugin, length);
            if (!loop.empty() && (best.empty() || IsLess(loop, best))) {
                best = std::move(loop);
            }
        }
        return WithBarriers(best);
    }

  private:
    using Group = std::vector<PluginIndex>;

    const std::string& NameOf(PluginIndex plugin) const { return boot.plugins[plugin].Name(); }

    // The part as it is when the turn of that name comes.
    void Revive(const Part& part, const std::string& name) {
        const auto lives = [&](Node node) {
            return !graph.IsPlugin(node) || NameOf(node) >= name;
        };
        for (const Node node : part) {
            isAlive[node] = lives(node);
        }
        const auto count = [this](const std::vector<Node>& nodes) {
            return static_cast<std::size_t>(
                std::count_if(nodes.begin(), nodes.end(), [this](Node node) { return isAlive[node]; }));
        };
        for (const Node node : part) {
            waysOut[node] = count(graph.Followers()[node]);
            waysIn[node] = count(graph.Leaders()[node]);
        }
    }

    std::vector<Group> GroupsByName(const Part& part) const {
        std::vector<PluginIndex> plugins;
        std::copy_if(part.begin(), part.end(), std::back_inserter(plugins),
                     [this](Node node) { return graph.IsPlugin(node); });
        std::sort(plugins.begin(), plugins.end(), [this](PluginIndex left, PluginIndex right) {
            return std::tie(NameOf(left), left) < std::tie(NameOf(right), right);
        });
        std::vector<Group> groups;
        for (const PluginIndex plugin : plugins) {
            if (groups.empty() || NameOf(groups.back().back()) != NameOf(plugin)) {
                groups.emplace_back();
            }
            groups.back().push_back(plugin);
        }
        return groups;
    }

    void Remove(Node first) {
        std::vector<Node> leaving{first};
        while (!leaving.empty()) {
            const Node node = leaving.back();
            leaving.pop_back();
            if (!isAlive[node]) {
                continue;
            }
            isAlive[node] = false;
            for (const Node follower : graph.Followers()[node]) {
                if (isAlive[follower] && --waysIn[follower] == 0) {
                    leaving.push_back(follower);
                }
            }
            for (const Node leader : graph.Leaders()[node]) {
                if (isAlive[leader] && --waysOut[leader] == 0) {
                    leaving.push_back(leader);
                }
            }
        }
    }

    // Links of a shortest loop through the plugin, if there is one of fewer than that; else the limit.
    std::size_t LoopLength(PluginIndex plugin, std::size_t limit) {
        Measure(plugin, graph.Followers(), limit);
        for (const Node leader : graph.Leaders()[plugin]) {
            if (isAlive[leader] && seen[leader] == round) {
                limit = std::min(limit, distance[leader] + 1);
            }
        }
        return limit;
    }

    // How far it is along these links from that node to every other one, as far as the limit.
    void Measure(Node first, const LinkGraph::Links& links, std::size_t limit) {
        ++round;
        seen[first] = round;
        distance[first] = 0;
        std::vector<Node> reached{first};
        for (std::size_t next = 0; next < reached.size(); ++next) {
            const Node node = reached[next];
            if (distance[node] + 1 >= limit) {
                return;
            }
            for (const Node neighbour : links[node]) {
                if (isAlive[neighbour] && seen[neighbour] != round) {
                    seen[neighbour] = round;
                    distance[neighbour] = distance[node] + 1;
                    reached.push_back(neighbour);
                }
            }
        }
    }

    // The loop of that many links through the plugin whose names come first; empty when there is none.
    std::vector<PluginIndex> LeastLoopFrom(PluginIndex first, std::size_t length) {
        Measure(first, graph.Leaders(), length);
        std::vector<Group> steps{{first}};
        for (std::size_t left = length - 2; left > 0; left -= 2) {
            Group next = FollowersAt(steps.back(), left);
            if (next.empty()) {
                return {};
            }
            steps.push_back(std::move(next));
        }
        const auto leads = [this](PluginIndex from, PluginIndex to) {
            return BarrierBetween(from, to).has_value();
        };
        std::vector<PluginIndex> loop{first};
        for (std::size_t step = steps.size() - 1; step > 0; --step) {
            loop.push_back(*std::find_if(steps[step].begin(), steps[step].end(),
                                         [&](PluginIndex plugin) { return leads(plugin, loop.back()); }));
        }
        if (!leads(first, loop.back())) {
            return {};
        }
        std::reverse(loop.begin() + 1, loop.end());
        return loop;
    }

    // Of the plugins behind these and that far from the end, those of the least name.
    Group FollowersAt(const Group& plugins, std::size_t left) const {
        Group least;
        for (const PluginIndex plugin : plugins) {
            for (const Node barrier : graph.Followers()[plugin]) {
                if (!isAlive[barrier] || seen[barrier] != round || distance[barrier] != left + 1) {
                    continue;
                }
                for (const Node follower : graph.Followers()[barrier]) {
                    if (!isAlive[follower] || seen[follower] != round || distance[follower] != left) {
                        continue;
                    }
                    if (least.empty() || NameOf(follower) < NameOf(least.front())) {
                        least = {follower};
                    } else if (NameOf(follower) == NameOf(least.front())) {
                        least.push_back(follower);
                    }
                }
            }
        }
        std::sort(least.begin(), least.end());
        least.erase(std::unique(least.begin(), least.end()), least.end());
        return least;
    }

    // The first one by name. Links are in the order of the barriers' names.
    std::optional<BarrierIndex> BarrierBetween(PluginIndex from, PluginIndex to) const {
        const std::vector<Node>& required = graph.Leaders()[to];
        for (const Node barrier : graph.Followers()[from]) {
            if (std::binary_search(required.begin(), required.end(), barrier)) {
                return graph.BarrierOf(barrier);
            }
        }
        return std::nullopt;
    }

    bool IsLess(const std::vector<PluginIndex>& left, const std::vector<PluginIndex>& right) const {
        return std::lexicographical_compare(
            left.begin(), left.end(), right.begin(), right.end(),
            [this](PluginIndex one, PluginIndex other) { return NameOf(one) < NameOf(other); });
    }

    Cycle WithBarriers(const std::vector<PluginIndex>& loop) const {
        Cycle cycle;
        for (std::size_t step = 0; step < loop.size(); ++step) {
            cycle.push_back({loop[step], *BarrierBetween(loop[step], loop[(step + 1) % loop.size()])});
        }
        return cycle;
    }

    const Boot& boot;
    const LinkGraph& graph;
    std::vector<bool> isAlive;
    std::vector<std::size_t> waysOut;  // to nodes that are alive
    std::vector<std::size_t> waysIn;
    std::vector<std::size_t> seen;  // in which round of measuring the node was reached
    std::vector<std::size_t> distance;
    std::size_t round = 0;
};

}  // namespace

std::vector<Cycle> FindCycles(const Boot& boot) {
    const LinkGraph graph(boot);
    LoopSearch loops(boot, graph);
    std::vector<Cycle> cycles;
    for (const Part& part : FindParts(graph)) {
        if (part.size() > 1) {
            cycles.push_back(loops.LeastLoopOf(part));
        }
    }
    const auto nameOf = [&](const Cycle& cycle) {
        return std::tie(boot.plugins[cycle.front().plugin].Name(), cycle.front().plugin);
    };
    std::sort(cycles.begin(), cycles.end(),
              [&](const Cycle& left, const Cycle& right) { return nameOf(left) < nameOf(right); });
    return cycles;
}

std::vector<Knot> FindKnots(const Boot& boot) {
    const LinkGraph graph(boot);
    std::vector<Knot> knots;
    for (Part part : FindParts(graph)) {
        if (part.size() == 1) {
            continue;
        }
        std::sort(part.begin(), part.end());
        Knot& knot = knots.emplace_back();
        for (const Node node : part) {
            if (graph.IsPlugin(node)) {
                knot.plugins.push_back(node);
            } else {
                knot.barriers.push_back(graph.BarrierOf(node));
            }
        }
    }
    return knots;
}

std::string ShownCycle(const Boot& boot, const Cycle& cycle) {
    std::string text;
    for (const CycleStep& step : cycle) {
        text += boot.plugins[step.plugin].Name() + " -[" + boot.barriers[step.barrier].name + "]-> ";
    }
    return text + boot.plugins[cycle.front().plugin].Name();
}

}  // namespace lofter::analyze
