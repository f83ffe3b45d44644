#include "graph/Dump.h"

#include <sstream>

#include <gtest/gtest.h>

#include "support/TestGraph.h"

namespace lofter {
namespace {

using test::TestGraph;

std::string Dump(const TestGraph& graph) {
    std::ostringstream output;
    DumpGraph(graph.graph, graph.Nodes(), output);
    return output.str();
}

std::string Id(const Node& node) {
    return std::to_string(reinterpret_cast<std::uintptr_t>(&node));
}

std::string Id(TestGraph& graph, const std::string& barrier) {
    return Id(graph.Barrier(barrier));
}

TEST(Dump, OfNothingIsAnEmptyDigraph) {
    const TestGraph graph("");
    EXPECT_EQ(Dump(graph), "digraph g {\n}\n");
}

TEST(Dump, DrawsEdgesInTheDirectionOfExecution) {
    TestGraph graph(
        "b: requires x\n"
        "a: provides x");
    EXPECT_EQ(Dump(graph), "digraph g {\n" +                                       //
                               Id(graph["b"]) + " [label=\"b\"];\n" +              //
                               Id(graph["a"]) + " [label=\"a\"];\n" +              //
                               Id(graph["a"]) + " -> " + Id(graph, "x") + ";\n" +  //
                               Id(graph, "x") + " [label=\"x\" shape=box];\n" +    //
                               Id(graph, "x") + " -> " + Id(graph["b"]) + ";\n}\n");
}

TEST(Dump, HasABarrierThatNobodyProvides) {
    TestGraph graph("a: requires missing");
    EXPECT_NE(Dump(graph).find(Id(graph, "missing") + " [label=\"missing\" shape=box];\n" + Id(graph, "missing") +
                               " -> " + Id(graph["a"]) + ";\n"),
              std::string::npos);
}

TEST(Dump, OrdersPriorityBarriersByTheBytesOfTheirNames) {
    TestGraph graph(
        "a: priority 9\n"
        "b: priority 10");
    const std::string dump = Dump(graph);
    const std::size_t ten = dump.find("[label=\"_<->_priority_<->_10\" shape=trapezium];");
    const std::size_t nine = dump.find("[label=\"_<->_priority_<->_9\" shape=trapezium];");
    ASSERT_NE(ten, std::string::npos);
    ASSERT_NE(nine, std::string::npos);
    EXPECT_LT(ten, nine);
}

// Keeps what is flushed at one time, behind a star when the lock was held.
class FlushRecorder : public std::stringbuf {
  public:
    std::vector<std::string> flushed;

  private:
    int sync() override {
        flushed.push_back((GraphLock::HeldByCaller() ? "*" : "") + str());
        str("");
        return 0;
    }
};

TEST(Dump, FlushesEveryLineAndTakesTheLockForTheEdgesOnly) {
    TestGraph graph("a: provides x y");
    FlushRecorder recorder;
    std::ostream output(&recorder);
    DumpNode(graph["a"], output);
    const std::string a = Id(graph["a"]);
    EXPECT_EQ(recorder.flushed,
              (std::vector<std::string>{a + " [label=\"a\"];\n", "*" + a + " -> " + Id(graph, "x") + ";\n",
                                        "*" + a + " -> " + Id(graph, "y") + ";\n"}));
}

}  // namespace
}  // namespace lofter
