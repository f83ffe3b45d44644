// A node of the dependency graph: the unit that the executor starts and stops.
//
// Plugins and barriers are nodes. An edge says that one node may start only after another has finished starting, and
// stop only after the other direction has finished stopping. Every node lives through the same states:
//
//                ScheduleStart             all dependencies satisfied            Start() returned
//      Idle ───────────────────▶ StartPending ───────────────────▶ StartQueued ───────────────────▶ Started
//        │                                                                                             ▲
//        ├───────────────────────────────── MarkStarted ───────────────────────────────────────────────┘
//        │       ScheduleStop               all dependents satisfied               Stop() returned
//        └─────────────────────▶ StopPending ────────────────────▶ StopQueued ────────────────────▶ Stopped
//
// Nothing ever returns to Idle, so within one run "satisfied" (Started or beyond) never becomes untrue again. Starting
// and stopping are mirror images: starting waits for `dependencies` and then releases `dependents`, stopping does the
// reverse. The code says it once, for either Phase.
//
// All state is guarded by the graph lock, which every operation here takes for itself. Links are made while the graph
// is built and never removed; the graph that owns the nodes keeps all of them for as long as it lives.
//
// Cycles are not detected: a node on a cycle never becomes ready. Neither scheduling nor the depths recurse, so a cycle
// waits instead of ending the process, and a chain may be as long as memory allows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "base/GraphLock.h"

namespace lofter {

class Executor;

enum class NodeState : std::uint32_t {
    Idle = 0,
    StartPending = 1,
    StopPending = 2,
    StartQueued = 3,
    StopQueued = 4,
    Started = 5,
    Stopped = 6,
};

class Node {
  public:
    using Links = std::vector<Node*>;

    // Lower classes are taken first among nodes that are ready.
    static constexpr std::uint32_t kDefaultClass = 1;
    static constexpr std::uint32_t kInitScriptClass = 3;

    // Throws Exception "Condition variable for Node could not be initialized".
    Node(std::string nodeName, std::uint32_t nodeClass);
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    // The node's work. Runs on an executor thread without the lock and must not throw: an exception ends the process.
    virtual void Start() = 0;
    virtual void Stop() {}

    // Extra Graphviz attributes for the dump, with a leading blank; may be empty.
    virtual std::string DotAttributes() const = 0;

    // Destroys no linked node.
    virtual ~Node();

    const std::string& Name() const { return name; }
    std::uint32_t ScheduleClass() const { return scheduleClass; }

    // In the order in which they were linked. The caller holds the graph lock or knows that nothing links any more.
    const Links& Dependencies() const { return dependencies; }
    const Links& Dependents() const { return dependents; }

    // This node starts after the other.
    void AddDependency(Node& other);
    // The other node starts after this one.
    void AddDependent(Node& other);

    // Length of the longest chain of nodes above (dependencies) or below (dependents). Cached; linking resets the
    // caches of the two nodes linked only, so depths mean something once the graph is complete.
    std::int32_t DependencyDepth();
    std::int32_t DependentDepth();

    NodeState State() const;

    // Asks for the node to be started (stopped): schedules what it waits for, then queues it once that has finished.
    void ScheduleStart(Executor& executor);
    void ScheduleStop(Executor& executor);

    // Runs the work that the node was queued for and releases whoever waits for it. The second form is for a worker
    // that holds the lock, once, through its guard: the node works without it, and the guard holds it again afterwards.
    void RunQueued(Executor& executor);
    void RunQueued(Executor& executor, GraphLock& lock);

    void WaitStarted();
    void WaitStopped();

    // Counts the node as started without running anything. For nodes that nobody waits for yet.
    void MarkStarted();

  protected:
    // For work that may run out of memory and the like where nothing else catches it: what it throws is logged,
    // "unhandled exception whilst processing <node>: <reason>\n", and the nodes behind this one run all the same.
    void Contain(const std::function<void()>& work) const;

  private:
    struct Phase;
    static const Phase kStart;
    static const Phase kStop;

    void Schedule(const Phase& phase, Executor& executor);
    void ScheduleWithPrerequisites(const Phase& phase, Executor& executor);
    void Recheck(const Phase& phase, Executor& executor);
    void Queue(const Phase& phase, Executor& executor);
    void Finish(const Phase& phase, Executor& executor);
    void WaitFor(NodeState wanted);
    std::int32_t Depth(std::int32_t Node::*cache, Links Node::*links) noexcept;

    std::string name;
    Links dependencies;
    Links dependents;
    const std::uint32_t scheduleClass;
    std::int32_t dependentDepth = -1;
    std::int32_t dependencyDepth = -1;
    NodeState state = NodeState::Idle;
    GraphCondition done;

    // How many leading prerequisites of the phase in progress are known to be satisfied. They stay so, which keeps the
    // total cost of all re-checks linear in the number of links.
    std::size_t satisfiedPrefix = 0;

    // Where walks along the links stand. They keep their paths in the nodes, so they need no memory of their own, and
    // apart from each other, since a node whose scheduling queues it has its depth computed.
    struct DepthVisit {
        Node* from;
        std::size_t nextLink;
        std::int32_t deepest;
    };
    struct ScheduleVisit {
        Node* from;
        std::size_t nextLink;
        bool ready;
    };
    DepthVisit depthVisit{};
    ScheduleVisit scheduleVisit{};
};

}  // namespace lofter
