#include "graph/Node.h"

#include <algorithm>
#include <new>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "base/Exception.h"
#include "graph/GraphRun.h"
#include "support/FailureOf.h"
#include "support/Faults.h"
#include "support/TestGraph.h"

namespace lofter {
namespace {

using test::Names;
using test::TestGraph;

class PlainNode : public Node {
  public:
    explicit PlainNode(const std::string& nodeName) : Node(nodeName, kDefaultClass) {}
    void Start() override {}
    std::string DotAttributes() const override { return {}; }
};

TEST(Node, StartsOutIdleWithoutLinks) {
    PlainNode node("alone");
    EXPECT_EQ(node.Name(), "alone");
    EXPECT_EQ(node.State(), NodeState::Idle);
    EXPECT_EQ(node.ScheduleClass(), 1U);
    EXPECT_TRUE(node.Dependencies().empty());
    EXPECT_TRUE(node.Dependents().empty());
}

TEST(Node, HasTheNumbersOfItsStates) {
    EXPECT_EQ(static_cast<int>(NodeState::Idle), 0);
    EXPECT_EQ(static_cast<int>(NodeState::StartPending), 1);
    EXPECT_EQ(static_cast<int>(NodeState::StopPending), 2);
    EXPECT_EQ(static_cast<int>(NodeState::StartQueued), 3);
    EXPECT_EQ(static_cast<int>(NodeState::StopQueued), 4);
    EXPECT_EQ(static_cast<int>(NodeState::Started), 5);
    EXPECT_EQ(static_cast<int>(NodeState::Stopped), 6);
}

TEST(Node, LinksBothEndsInOrder) {
    PlainNode a("a");
    PlainNode b("b");
    PlainNode c("c");
    a.AddDependency(b);
    a.AddDependency(c);
    c.AddDependent(b);
    EXPECT_EQ(Names(a.Dependencies()), "b c");
    EXPECT_EQ(Names(b.Dependents()), "a");
    EXPECT_EQ(Names(c.Dependents()), "a b");
    EXPECT_EQ(Names(b.Dependencies()), "c");
}

TEST(Node, IsLinkedAtBothEndsOrAtNeither) {
    for (const int allocations : {0, 1, 2}) {
        PlainNode barrier("barrier");
        PlainNode plugin("plugin");
        bool isLinked = true;
        {
            const test::FailingCall failing(test::Call::OperatorNew, allocations);
            try {
                barrier.AddDependent(plugin);
            } catch (const std::bad_alloc&) {
                isLinked = false;
            }
        }
        EXPECT_EQ(isLinked, allocations == 2) << "one for each list";
        EXPECT_EQ(barrier.Dependents().size(), isLinked ? 1U : 0U) << allocations;
        EXPECT_EQ(plugin.Dependencies().size(), isLinked ? 1U : 0U) << allocations;
    }
}

TEST(Node, WithoutLinksHasDepthsOfZero) {
    PlainNode node("alone");
    EXPECT_EQ(node.DependencyDepth(), 0);
    EXPECT_EQ(node.DependentDepth(), 0);
}

TEST(Node, CountsTheLongestChainOnEitherSide) {
    TestGraph graph(
        "a: provides x\n"
        "b: requires x provides y\n"
        "c: requires x y");
    EXPECT_EQ(graph["a"].DependentDepth(), 4);  // x b y c
    EXPECT_EQ(graph["a"].DependencyDepth(), 0);
    EXPECT_EQ(graph["b"].DependentDepth(), 2);
    EXPECT_EQ(graph["b"].DependencyDepth(), 2);
    EXPECT_EQ(graph["c"].DependencyDepth(), 4);
    EXPECT_EQ(graph["c"].DependentDepth(), 0);
}

TEST(Node, ForgetsItsDepthsWhenItIsLinked) {
    PlainNode a("a");
    PlainNode b("b");
    PlainNode c("c");
    b.AddDependency(a);
    EXPECT_EQ(a.DependentDepth(), 1);
    c.AddDependency(a);
    c.AddDependency(b);
    EXPECT_EQ(a.DependentDepth(), 2);
    EXPECT_EQ(c.DependencyDepth(), 2);
}

TEST(Node, ForgetsOnlyTheDepthsOfTheTwoThatAreLinked) {
    PlainNode a("a");
    PlainNode b("b");
    PlainNode c("c");
    b.AddDependency(a);
    EXPECT_EQ(a.DependentDepth(), 1);
    EXPECT_EQ(b.DependentDepth(), 0);
    c.AddDependency(b);
    EXPECT_EQ(a.DependentDepth(), 1);  // depths are asked for once the graph is complete
    EXPECT_EQ(b.DependentDepth(), 1);
}

TEST(Node, HasDepthsOnAChainLongerThanAnyStack) {
    constexpr int kLength = 100'000;
    std::vector<std::unique_ptr<PlainNode>> chain;
    for (int i = 0; i < kLength; ++i) {
        chain.push_back(std::make_unique<PlainNode>(std::to_string(i)));
        if (i > 0) {
            chain[static_cast<std::size_t>(i)]->AddDependency(*chain[static_cast<std::size_t>(i) - 1]);
        }
    }
    // On a thread with a small stack: depths are computed on worker threads, too.
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 256 * 1024);
    pthread_t thread{};
    ASSERT_EQ(pthread_create(
                  &thread, &attributes,
                  [](void* node) -> void* {
                      static_cast<Node*>(node)->DependentDepth();
                      return nullptr;
                  },
                  chain.front().get()),
              0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    EXPECT_EQ(chain.front()->DependentDepth(), kLength - 1);
    EXPECT_EQ(chain.back()->DependencyDepth(), kLength - 1);
    EXPECT_EQ(chain[500]->DependentDepth(), kLength - 501);
}

TEST(Node, HasDepthsOnACycleInFiniteTime) {
    TestGraph graph(
        "a: provides x\n"
        "b: requires x z provides y\n"
        "c: requires y provides z");
    EXPECT_GE(graph["a"].DependentDepth(), 4);
    EXPECT_GE(graph["c"].DependencyDepth(), 1);
}

TEST(Node, IsQueuedAtOnceWhenItsDependenciesHaveStartedBefore) {
    TestGraph graph(
        "a: provides x\n"
        "b: requires x");
    Executor executor(0, false);
    graph["a"].MarkStarted();
    graph.Barrier("x").MarkStarted();
    graph["b"].ScheduleStart(executor);
    EXPECT_EQ(graph["b"].State(), NodeState::StartQueued);
}

TEST(Node, SchedulesWhatItWaitsForFirst) {
    TestGraph graph(
        "b: requires x\n"
        "a: provides x");
    Executor executor(0, false);
    graph["b"].ScheduleStart(executor);
    EXPECT_EQ(graph["b"].State(), NodeState::StartPending);
    EXPECT_EQ(graph.Barrier("x").State(), NodeState::StartPending);
    EXPECT_EQ(graph["a"].State(), NodeState::StartQueued);
}

TEST(Node, SchedulesEveryIdleDependencyAlsoBehindAnOutstandingOne) {
    TestGraph graph(
        "c: requires x y\n"
        "a: provides x\n"
        "b: provides y");
    Executor executor(0, false);
    graph["c"].ScheduleStart(executor);
    EXPECT_EQ(graph["a"].State(), NodeState::StartQueued);
    EXPECT_EQ(graph["b"].State(), NodeState::StartQueued);
}

TEST(Node, SchedulesADependencyThatWasLinkedAfterItWasAskedFor) {
    PlainNode a("a");
    PlainNode b("b");
    PlainNode late("late");
    b.AddDependency(a);
    Executor executor(0, false);
    b.ScheduleStart(executor);
    b.AddDependency(late);
    a.RunQueued(executor);
    EXPECT_EQ(late.State(), NodeState::StartQueued);
    EXPECT_EQ(b.State(), NodeState::StartPending);
    late.RunQueued(executor);
    EXPECT_EQ(b.State(), NodeState::StartQueued);
}

TEST(Node, IsLeftAloneWhenItHasStarted) {
    TestGraph graph("a: requires x");
    Executor executor(0, false);
    graph["a"].MarkStarted();
    graph["a"].ScheduleStart(executor);
    EXPECT_EQ(graph["a"].State(), NodeState::Started);
    EXPECT_EQ(graph.Barrier("x").State(), NodeState::Idle);
}

TEST(Node, MarkedAsStartedHoldsNobodyUp) {
    TestGraph graph(
        "a: provides x\n"
        "b: requires x");
    graph["a"].MarkStarted();
    EXPECT_EQ(graph.Starts(), "b");
}

TEST(Node, CanBeStoppedAfterItWasStarted) {
    TestGraph graph(
        "a: provides x\n"
        "b: requires x");
    EXPECT_EQ(graph.Starts(), "a b");
    // Started nodes count as satisfied for a stop: whoever is asked stops at once.
    Executor executor(1, false);
    StopRun(graph.graph, graph.Nodes(), executor);
    EXPECT_EQ(graph["a"].State(), NodeState::Stopped);
    EXPECT_EQ(graph["b"].State(), NodeState::Stopped);
    EXPECT_EQ(graph.Ran().substr(0, 4), "a b ");
}

TEST(Node, QueuesThoseBehindItAlsoWithoutMemory) {
    Executor executor(0, false);
    PlainNode first("first");
    PlainNode second("second");
    PlainNode third("third");
    second.AddDependency(first);
    third.AddDependency(second);
    executor.Reserve(3);
    third.ScheduleStart(executor);
    {
        const test::FailingCall failing(test::Call::OperatorNew, 0);
        first.RunQueued(executor);
        second.RunQueued(executor);
    }
    EXPECT_EQ(third.State(), NodeState::StartQueued);
    third.RunQueued(executor);
}

TEST(Node, SaysSoWhenItsConditionVariableIsRefused) {
    const test::FailingCall failing(test::Call::PthreadCondInit, 0);
    EXPECT_EQ(test::FailureOf<Exception>([&] { PlainNode node("refused"); }),
              "Condition variable for Node could not be initialized");
}

}  // namespace
}  // namespace lofter
