#include "GraphModel.h"

#include <algorithm>
#include <cstdlib>
#include <functional>

namespace lofter::fuzz {

namespace {

std::string PriorityName(unsigned priority) {
    return "_<->_priority_<->_" + std::to_string(priority);
}

}  // namespace

struct GraphModel::Phase {
    State pending;
    State queued;
    State finished;
    std::vector<Id> Node::*waitsFor;
    std::vector<Id> Node::*releases;
};

GraphModel::Id GraphModel::AddWork(const std::string& name, unsigned scheduleClass) {
    nodes.push_back({name, Kind::Work, scheduleClass, {}, {}});
    return nodes.size() - 1;
}

GraphModel::Id GraphModel::Barrier(const std::string& name) {
    if (!barriers.contains(name)) {
        nodes.push_back({name, Kind::Barrier, 1, {}, {}});
        barriers[name] = nodes.size() - 1;
    }
    return barriers[name];
}

// A new one goes between its neighbours: it waits for the barrier in front, and the next group waits for it, too.
GraphModel::Id GraphModel::PriorityBarrier(unsigned priority) {
    const std::string name = PriorityName(priority);
    if (barriers.contains(name) && nodes[barriers[name]].kind == Kind::PriorityBarrier) {
        return barriers[name];
    }
    nodes.push_back({name, Kind::PriorityBarrier, 1, {}, {}});
    const Id made = nodes.size() - 1;
    nodes[made].priority = priority;
    barriers[name] = made;

    const auto place = priorities.insert(priority).first;
    if (place != priorities.begin()) {
        Link(made, barriers[PriorityName(*std::prev(place))]);
    }
    if (std::next(place) != priorities.end()) {
        const Id next = barriers[PriorityName(*std::next(place))];
        for (const Id member : std::vector<Id>(nodes[next].dependencies)) {
            if (nodes[member].kind == Kind::Work) {
                Link(member, made);
            }
        }
        Link(next, made);
    }
    return made;
}

void GraphModel::Link(Id node, Id dependency) {
    nodes[node].dependencies.push_back(dependency);
    nodes[dependency].dependents.push_back(node);
}

void GraphModel::JoinPriority(Id node, Id priorityBarrier) {
    const auto place = priorities.find(nodes[priorityBarrier].priority);
    if (place != priorities.begin()) {
        Link(node, barriers[PriorityName(*std::prev(place))]);
    }
    Link(priorityBarrier, node);
}

// Takes nodes away that wait for nothing that is left; what can never be taken away is on a cycle or behind one.
bool GraphModel::HasCycle() const {
    std::set<Id> left;
    for (Id node = 0; node < nodes.size(); ++node) {
        left.insert(node);
    }
    for (bool progress = true; progress;) {
        progress = std::erase_if(left, [&](Id node) {
                       const std::vector<Id>& links = nodes[node].dependencies;
                       return std::none_of(links.begin(), links.end(), [&](Id link) { return left.contains(link); });
                   }) > 0;
    }
    return !left.empty();
}

GraphModel::RunResult GraphModel::Start(const std::vector<Id>& sequence, bool random) {
    return Run({State::StartPending, State::StartQueued, State::Started, &Node::dependencies, &Node::dependents},
               sequence, random);
}

GraphModel::RunResult GraphModel::Stop(const std::vector<Id>& sequence, bool random) {
    return Run({State::StopPending, State::StopQueued, State::Stopped, &Node::dependents, &Node::dependencies},
               sequence, random);
}

GraphModel::RunResult GraphModel::Run(const Phase& phase, const std::vector<Id>& sequence, bool random) {
    RunResult result;
    for (const Id node : sequence) {
        Schedule(phase, node);
    }
    while (!queue.empty()) {
        const Id taken = Take(phase, random);
        Node& node = nodes[taken];
        result.worked.push_back(taken);
        if (node.kind == Kind::Barrier && phase.finished == State::Started && node.dependencies.empty()) {
            std::string message = "Lofter dependency error: Initialization barrier \"" + node.name +
                                  "\" is not provided by any plugin but the following plugins require it: ";
            for (const Id dependent : node.dependents) {
                message += '"' + nodes[dependent].name + "\", ";
            }
            result.messages.push_back(node.dependents.empty() ? message : message.substr(0, message.size() - 2));
        }
        node.state = phase.finished;
        for (const Id released : node.*phase.releases) {
            if (nodes[released].state == phase.pending) {
                Schedule(phase, released);
            }
        }
    }
    return result;
}

void GraphModel::Schedule(const Phase& phase, Id id) {
    if (nodes[id].state == phase.queued || nodes[id].state == phase.finished) {
        return;
    }
    if (nodes[id].state == State::Idle) {
        nodes[id].state = phase.pending;
    }
    bool ready = true;
    for (const Id other : nodes[id].*phase.waitsFor) {
        const State state = nodes[other].state;
        if (state == State::Idle) {
            Schedule(phase, other);
        }
        ready = ready && state != State::Idle && state != phase.pending && state != phase.queued;
    }
    if (ready) {
        nodes[id].state = phase.queued;
        queue.push_back(id);
    }
}

// Of the lowest class those with the longest way behind them; of these the one that has waited longest, or any.
GraphModel::Id GraphModel::Take(const Phase& phase, bool random) {
    std::vector<Id> best;
    unsigned bestClass = 0;
    int bestDepth = 0;
    for (const Id node : queue) {
        const unsigned itsClass = nodes[node].scheduleClass;
        const int depth = Depth(node, phase.releases);
        if (best.empty() || itsClass < bestClass || (itsClass == bestClass && depth > bestDepth)) {
            best.clear();
            bestClass = itsClass;
            bestDepth = depth;
        }
        if (itsClass == bestClass && depth == bestDepth) {
            best.push_back(node);
        }
    }
    const Id taken = best[random ? static_cast<std::size_t>(std::rand()) % best.size() : 0];
    std::erase(queue, taken);
    return taken;
}

int GraphModel::Depth(Id node, std::vector<Id> Node::*links) {
    std::map<Id, int> known;
    std::set<Id> onTheWay;
    return Depth(node, links, known, onTheWay);
}

int GraphModel::Depth(Id node, std::vector<Id> Node::*links, std::map<Id, int>& known, std::set<Id>& onTheWay) {
    if (!known.contains(node)) {
        int depth = 0;
        onTheWay.insert(node);
        for (const Id next : nodes[node].*links) {
            if (!onTheWay.contains(next)) {
                depth = std::max(depth, 1 + Depth(next, links, known, onTheWay));
            }
        }
        onTheWay.erase(node);
        known[node] = depth;
    }
    return known[node];
}

}  // namespace lofter::fuzz
