#include "graph/Node.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "base/Logging.h"
#include "graph/Executor.h"

namespace lofter {

// Starting and stopping, told apart only by these values.
struct Node::Phase {
    NodeState pending;
    NodeState queued;
    NodeState finished;
    Links Node::*prerequisites;  // what a node waits for
    Links Node::*followers;      // what waits for the node

    // Whether a prerequisite still holds its followers up. The states of the other phase do not.
    bool IsOutstanding(NodeState prerequisite) const {
        return prerequisite == NodeState::Idle || prerequisite == pending || prerequisite == queued;
    }
};

const Node::Phase Node::kStart{NodeState::StartPending, NodeState::StartQueued, NodeState::Started, &Node::dependencies,
                               &Node::dependents};
const Node::Phase Node::kStop{NodeState::StopPending, NodeState::StopQueued, NodeState::Stopped, &Node::dependents,
                              &Node::dependencies};

namespace {

constexpr std::int32_t kNotComputed = -1;
constexpr std::int32_t kBeingComputed = -2;  // never outlives one hold of the lock

}  // namespace

Node::Node(std::string nodeName, std::uint32_t nodeClass)
    : name(std::move(nodeName)),
      scheduleClass(nodeClass),
      done("Condition variable for Node could not be initialized") {}

Node::~Node() = default;

void Node::AddDependency(Node& other) {
    GraphLock lock;
    dependencyDepth = kNotComputed;
    other.dependentDepth = kNotComputed;
    dependencies.push_back(&other);
    try {
        other.dependents.push_back(this);
    } catch (...) {
        // Short of memory. A link that only this end knows of would outlive the other one.
        dependencies.pop_back();
        throw;
    }
}

void Node::AddDependent(Node& other) {
    other.AddDependency(*this);
}

std::int32_t Node::DependencyDepth() {
    return Depth(&Node::dependencyDepth, &Node::dependencies);
}

std::int32_t Node::DependentDepth() {
    return Depth(&Node::dependentDepth, &Node::dependents);
}

// The longest chain of links that leads away from this node, by a walk in depth. A link that closes a cycle contributes
// nothing.
std::int32_t Node::Depth(std::int32_t Node::*cache, Links Node::*links) noexcept {
    GraphLock lock;
    if (this->*cache >= 0) {
        return this->*cache;
    }
    const auto enter = [cache](Node* node, Node* from) {
        node->*cache = kBeingComputed;
        node->depthVisit = {from, 0, -1};
        return node;
    };

    for (Node* node = enter(this, nullptr); node != nullptr;) {
        const Links& neighbours = node->*links;
        if (node->depthVisit.nextLink < neighbours.size()) {
            Node* neighbour = neighbours[node->depthVisit.nextLink++];
            if (neighbour->*cache == kNotComputed) {
                node = enter(neighbour, node);
            } else {
                node->depthVisit.deepest = std::max(node->depthVisit.deepest, neighbour->*cache);
            }
            continue;
        }
        const std::int32_t depth = std::max(node->depthVisit.deepest, -1) + 1;
        node->*cache = depth;
        node = node->depthVisit.from;
        if (node != nullptr) {
            node->depthVisit.deepest = std::max(node->depthVisit.deepest, depth);
        }
    }
    return this->*cache;
}

NodeState Node::State() const {
    GraphLock lock;
    return state;
}

void Node::ScheduleStart(Executor& executor) {
    Schedule(kStart, executor);
}

void Node::ScheduleStop(Executor& executor) {
    Schedule(kStop, executor);
}

void Node::Schedule(const Phase& phase, Executor& executor) {
    GraphLock lock;
    if (state == phase.queued || state == phase.finished) {
        return;
    }
    if (state == phase.pending) {
        Recheck(phase, executor);
    } else {
        ScheduleWithPrerequisites(phase, executor);
    }
}

// A node that is asked for the first time: looks at all its prerequisites, in order, and schedules the idle ones in the
// same way before it goes on to the next. A node is queued after the last look at its prerequisites, if none was
// outstanding.
void Node::ScheduleWithPrerequisites(const Phase& phase, Executor& executor) {
    const auto enter = [&phase](Node* node, Node* from) {
        if (node->state == NodeState::Idle) {
            node->state = phase.pending;
        }
        node->scheduleVisit = {from, 0, true};
        return node;
    };

    for (Node* node = enter(this, nullptr); node != nullptr;) {
        ScheduleVisit& visit = node->scheduleVisit;
        const Links& prerequisites = node->*phase.prerequisites;
        if (visit.nextLink < prerequisites.size()) {
            Node* prerequisite = prerequisites[visit.nextLink++];
            visit.ready = visit.ready && !phase.IsOutstanding(prerequisite->state);
            if (prerequisite->state == NodeState::Idle) {
                node = enter(prerequisite, node);
            }
            continue;
        }
        Node* const visited = node;
        node = visit.from;
        if (visit.ready) {
            visited->Queue(phase, executor);
        }
    }
}

// A node that was asked for before: its prerequisites are all scheduled, and the first outstanding one decides.
void Node::Recheck(const Phase& phase, Executor& executor) {
    const Links& prerequisites = this->*phase.prerequisites;
    while (satisfiedPrefix < prerequisites.size()) {
        Node* prerequisite = prerequisites[satisfiedPrefix];
        if (prerequisite->state == NodeState::Idle) {  // linked after this node was first asked for
            prerequisite->Schedule(phase, executor);
            return;
        }
        if (phase.IsOutstanding(prerequisite->state)) {
            return;
        }
        ++satisfiedPrefix;
    }
    Queue(phase, executor);
}

void Node::Queue(const Phase& phase, Executor& executor) {
    state = phase.queued;
    satisfiedPrefix = 0;
    executor.Enqueue(*this);
}

void Node::RunQueued(Executor& executor) {
    GraphLock lock;
    RunQueued(executor, lock);
}

void Node::RunQueued(Executor& executor, GraphLock& lock) {
    const bool isStart = state == kStart.queued;
    lock.Release();
    if (isStart) {
        Start();
    } else {
        Stop();
    }
    lock.Acquire();
    Finish(isStart ? kStart : kStop, executor);
}

void Node::Contain(const std::function<void()>& work) const {
    try {
        work();
    } catch (const std::exception& e) {
        Log_Level(kError, "unhandled exception whilst processing %s: %s\n", name.c_str(), e.what());
    }
}

void Node::Finish(const Phase& phase, Executor& executor) {
    state = phase.finished;
    for (Node* follower : this->*phase.followers) {
        if (follower->state == phase.pending) {
            follower->Schedule(phase, executor);
        }
    }
    done.Broadcast();
}

void Node::WaitStarted() {
    WaitFor(NodeState::Started);
}

void Node::WaitStopped() {
    WaitFor(NodeState::Stopped);
}

void Node::WaitFor(NodeState wanted) {
    GraphLock lock;
    while (state != wanted) {
        done.Wait();
    }
}

void Node::MarkStarted() {
    GraphLock lock;
    state = NodeState::Started;
}

}  // namespace lofter
