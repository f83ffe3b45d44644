// The rules of the dependency graph, as plainly as they can be said: a reference for the program's graph and executor,
// with which it shares no code. Slow, recursive, for one thread; a cycle is no trouble, what is on it never works.
#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace lofter::fuzz {

class GraphModel {
  public:
    using Id = std::size_t;

    enum class State { Idle, StartPending, StopPending, StartQueued, StopQueued, Started, Stopped };
    enum class Kind { Work, Barrier, PriorityBarrier };

    struct Node {
        std::string name;
        Kind kind;
        unsigned scheduleClass;
        std::vector<Id> dependencies;
        std::vector<Id> dependents;
        State state = State::Idle;
        unsigned priority = 0;
    };

    // Building. Barriers are created on first mention.
    Id AddWork(const std::string& name, unsigned scheduleClass);
    Id Barrier(const std::string& name);
    Id PriorityBarrier(unsigned priority);
    void Link(Id node, Id dependency);
    void JoinPriority(Id node, Id priorityBarrier);
    // Also what stands in for a node that is gone.
    void MarkStarted(Id node) { nodes[node].state = State::Started; }

    const Node& operator[](Id node) const { return nodes[node]; }
    std::size_t Size() const { return nodes.size(); }

    bool HasCycle() const;

    struct RunResult {
        std::vector<Id> worked;             // in order
        std::vector<std::string> messages;  // of barriers that nobody provides, in order
    };

    // One run over the nodes, with one thread. With `random` it draws from rand() as the executor does.
    RunResult Start(const std::vector<Id>& sequence, bool random);
    RunResult Stop(const std::vector<Id>& sequence, bool random);

  private:
    struct Phase;

    RunResult Run(const Phase& phase, const std::vector<Id>& sequence, bool random);
    void Schedule(const Phase& phase, Id node);
    Id Take(const Phase& phase, bool random);
    int Depth(Id node, std::vector<Id> Node::*links);
    int Depth(Id node, std::vector<Id> Node::*links, std::map<Id, int>& known, std::set<Id>& onTheWay);

    std::vector<Node> nodes;
    std::map<std::string, Id> barriers;
    std::set<unsigned> priorities;
    std::vector<Id> queue;
};

}  // namespace lofter::fuzz
