// Graphs for tests, written as text and run by the real executor.
//
//      TestGraph graph("hw:  provides disk\n"
//                      "net: requires disk provides link\n"
//                      "ntp: requires link class 3");
//      EXPECT_EQ(graph.Starts(), "hw net ntp");
//
// One line a node, in discovery order: its name and a colon, then any of "requires <barriers>", "provides <barriers>",
// "priority <number>" (joins that priority group) and "class <number>". A node's work is to note that it ran; a held
// node works until it is released.
#pragma once

#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "base/Settings.h"
#include "graph/Executor.h"
#include "graph/Graph.h"

namespace lofter::test {

class TestGraph {
  public:
    explicit TestGraph(const std::string& text);
    TestGraph(const TestGraph&) = delete;
    TestGraph& operator=(const TestGraph&) = delete;

    Node& operator[](const std::string& name);
    InitBarrier& Barrier(const std::string& name);
    PriorityBarrier& Priority(std::uint32_t priority);
    const std::vector<Node*>& Nodes() const { return nodes; }

    // Runs the graph and returns the names in the order in which the work of the nodes began, separated by blanks.
    std::string Starts(int threads = 1, bool randomize = false);
    std::string Stops(int threads = 1, bool randomize = false);

    // For runs that the test drives itself: what ran so far, and which nodes are at work.
    std::string Ran() const;
    void Hold(const std::string& name);
    void Release(const std::string& name);
    // Waits for the node to be at work; false after ten seconds without.
    bool AwaitWorking(const std::string& name);
    // The names that are at work now, sorted.
    std::string Working() const;

    Settings settings;
    Graph graph{settings};

  private:
    class WorkNode;

    void AddNode(const std::string& line);
    void Work(const std::string& name);

    std::vector<Node*> nodes;
    std::map<std::string, Node*> byName;

    mutable std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> ran;
    std::set<std::string> held;
    std::set<std::string> working;
};

// The names separated by blanks.
std::string Names(const std::vector<Node*>& nodes);

// The nodes, barriers apart, that a barrier of the graph is linked with although they are neither of the list nor
// started: nobody looks after them. A node is named once for each such link.
std::string Forgotten(const Graph& graph, const std::vector<Node*>& listed);

// Whether `first` stands before `second` in a blank-separated list that has both.
bool IsBefore(const std::string& list, const std::string& first, const std::string& second);

}  // namespace lofter::test
