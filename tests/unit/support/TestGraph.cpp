#include "support/TestGraph.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "graph/GraphRun.h"

namespace lofter::test {

namespace {

template <typename Range>
std::string Joined(const Range& names) {
    std::string text;
    const char* separator = "";
    for (const std::string& name : names) {
        text += separator + name;
        separator = " ";
    }
    return text;
}

}  // namespace

class TestGraph::WorkNode : public Node {
  public:
    WorkNode(TestGraph& testGraph, const std::string& nodeName, std::uint32_t nodeClass)
        : Node(nodeName, nodeClass), owner(testGraph) {}
    void Start() override { owner.Work(Name()); }
    void Stop() override { owner.Work(Name()); }
    std::string DotAttributes() const override { return {}; }

  private:
    TestGraph& owner;
};

TestGraph::TestGraph(const std::string& text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        AddNode(line);
    }
}

void TestGraph::AddNode(const std::string& line) {
    std::istringstream words(line);
    std::string name;
    words >> name;
    if (name.empty() || name.back() != ':') {
        throw std::invalid_argument("no node name in: " + line);
    }
    name.pop_back();

    std::map<std::string, std::vector<std::string>> clauses;
    std::string clause;
    for (std::string word; words >> word;) {
        if (word == "requires" || word == "provides" || word == "priority" || word == "class") {
            clause = word;
        } else {
            clauses[clause].push_back(word);
        }
    }
    const std::uint32_t nodeClass = clauses.contains("class")
                                        ? static_cast<std::uint32_t>(std::stoul(clauses["class"].at(0)))
                                        : Node::kDefaultClass;
    Node& node = graph.Add(std::make_unique<WorkNode>(*this, name, nodeClass));
    nodes.push_back(&node);
    byName[name] = &node;
    for (const std::string& barrier : clauses["requires"]) {
        graph.Require(node, barrier);
    }
    for (const std::string& barrier : clauses["provides"]) {
        graph.Provide(node, barrier);
    }
    for (const std::string& priority : clauses["priority"]) {
        graph.GetPriorityBarrier(static_cast<std::uint32_t>(std::stoul(priority)))->AddPlugin(node);
    }
}

Node& TestGraph::operator[](const std::string& name) {
    return *byName.at(name);
}

InitBarrier& TestGraph::Barrier(const std::string& name) {
    return *graph.GetBarrier(name, false);
}

PriorityBarrier& TestGraph::Priority(std::uint32_t priority) {
    return *graph.GetPriorityBarrier(priority);
}

std::string TestGraph::Starts(int threads, bool randomize) {
    Executor executor(threads, randomize);
    StartRun(graph, nodes, executor);
    return Ran();
}

std::string TestGraph::Stops(int threads, bool randomize) {
    Executor executor(threads, randomize);
    StopRun(graph, nodes, executor);
    return Ran();
}

std::string TestGraph::Ran() const {
    const std::lock_guard guard(mutex);
    return Joined(ran);
}

void TestGraph::Hold(const std::string& name) {
    const std::lock_guard guard(mutex);
    held.insert(name);
}

void TestGraph::Release(const std::string& name) {
    const std::lock_guard guard(mutex);
    held.erase(name);
    changed.notify_all();
}

bool TestGraph::AwaitWorking(const std::string& name) {
    std::unique_lock guard(mutex);
    return changed.wait_for(guard, std::chrono::seconds(10), [&] { return working.contains(name); });
}

std::string TestGraph::Working() const {
    const std::lock_guard guard(mutex);
    return Joined(working);
}

void TestGraph::Work(const std::string& name) {
    std::unique_lock guard(mutex);
    ran.push_back(name);
    working.insert(name);
    changed.notify_all();
    changed.wait(guard, [&] { return !held.contains(name); });
    working.erase(name);
}

std::string Names(const std::vector<Node*>& nodes) {
    std::vector<std::string> names;
    for (const Node* node : nodes) {
        names.push_back(node->Name());
    }
    return Joined(names);
}

std::string Forgotten(const Graph& graph, const std::vector<Node*>& listed) {
    std::vector<Node*> forgotten;
    const auto isForgotten = [&](Node* node) {
        return dynamic_cast<InitBarrier*>(node) == nullptr && node->State() != NodeState::Started &&
               std::find(listed.begin(), listed.end(), node) == listed.end();
    };
    for (const InitBarrier* barrier : graph.AllBarriers()) {
        for (const Node::Links* links : {&barrier->Dependencies(), &barrier->Dependents()}) {
            std::copy_if(links->begin(), links->end(), std::back_inserter(forgotten), isForgotten);
        }
    }
    return Names(forgotten);
}

bool IsBefore(const std::string& list, const std::string& first, const std::string& second) {
    const std::string padded = " " + list + " ";
    const std::size_t firstPlace = padded.find(" " + first + " ");
    const std::size_t secondPlace = padded.find(" " + second + " ");
    return firstPlace != std::string::npos && secondPlace != std::string::npos && firstPlace < secondPlace;
}

}  // namespace lofter::test
