#include "graph/Executor.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <iterator>
#include <optional>
#include <set>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "base/Exception.h"
#include "graph/GraphRun.h"
#include "support/FailureOf.h"
#include "support/Faults.h"
#include "support/ForkedChild.h"
#include "support/TestGraph.h"
#include "support/WaitUntil.h"

namespace lofter {
namespace {

using test::IsBefore;
using test::TestGraph;

constexpr char kDiamond[] =
    "bottom: requires left right\n"
    "l: requires top provides left\n"
    "r: requires top provides right\n"
    "t: provides top";

TEST(ExecutorWithOneThread, StartsDependenciesFirst) {
    TestGraph graph(
        "ntp: requires link\n"
        "net: requires hw provides link\n"
        "disk: provides hw");
    EXPECT_EQ(graph.Starts(), "disk net ntp");
}

TEST(ExecutorWithOneThread, TakesEqualNodesInTheOrderInWhichTheyBecameReady) {
    TestGraph graph("b:\na:\nc:");
    EXPECT_EQ(graph.Starts(), "b a c");
}

TEST(ExecutorWithOneThread, PrefersTheLongestChainOfDependents) {
    TestGraph graph(
        "lonely:\n"
        "short: provides s\n"
        "user: requires s\n"
        "long: provides l1\n"
        "middle: requires l1 provides l2\n"
        "end: requires l2");
    EXPECT_EQ(graph.Starts(), "long short middle lonely user end");
}

TEST(ExecutorWithOneThread, RunsInitScriptsAfterEverythingElseThatIsReady) {
    TestGraph graph(
        "daemon: class 3 provides d\n"
        "waiter: requires d\n"
        "plain:");
    EXPECT_EQ(graph.Starts(), "plain daemon waiter");
}

TEST(ExecutorWithOneThread, RunsADiamond) {
    TestGraph graph(kDiamond);
    EXPECT_EQ(graph.Starts(), "t l r bottom");
}

TEST(ExecutorWithOneThread, HasTheSameOrderEveryTime) {
    std::set<std::string> orders;
    for (int i = 0; i < 50; ++i) {
        TestGraph graph(
            "a: provides x\n"
            "b:\n"
            "c: requires x\n"
            "d: provides y\n"
            "e: requires y x");
        orders.insert(graph.Starts());
    }
    EXPECT_EQ(orders, std::set<std::string>{"a d b c e"});
}

TEST(ExecutorWithOneThread, StopsDependentsBeforeTheirDependencies) {
    TestGraph graph(kDiamond);
    EXPECT_EQ(graph.Stops(), "bottom l r t");
}

TEST(ExecutorWithOneThread, PrefersTheLongestChainOfDependenciesWhenItStops) {
    TestGraph graph(
        "lonely:\n"
        "deep: requires x\n"
        "base: provides x");
    EXPECT_EQ(graph.Stops(), "deep lonely base");
}

TEST(ExecutorThatRandomizes, HonoursTheLinksInEveryOrder) {
    std::set<std::string> orders;
    for (unsigned seed = 0; seed < 40; ++seed) {
        std::srand(seed);
        TestGraph graph(kDiamond);
        orders.insert(graph.Starts(1, true));
    }
    EXPECT_EQ(orders, (std::set<std::string>{"t l r bottom", "t r l bottom"}));
}

TEST(ExecutorWithManyThreads, RunsIndependentNodesAtTheSameTime) {
    TestGraph graph("a:\nb:\nc: requires x\nd: provides x");
    for (const char* name : {"a", "b", "d"}) {
        graph.Hold(name);
    }
    Executor executor(4, false);
    for (Node* node : graph.Nodes()) {
        node->ScheduleStart(executor);
    }
    for (const char* name : {"a", "b", "d"}) {
        ASSERT_TRUE(graph.AwaitWorking(name));
    }
    EXPECT_EQ(graph.Working(), "a b d");
    graph.Release("d");
    graph["c"].WaitStarted();
    graph.Release("a");
    graph.Release("b");
    graph["a"].WaitStarted();
    graph["b"].WaitStarted();
}

TEST(ExecutorWithManyThreads, HonoursEveryLinkOfALayeredGraph) {
    constexpr int kLayers = 30;
    constexpr int kWidth = 10;
    std::string text;
    for (int layer = 0; layer < kLayers; ++layer) {
        for (int i = 0; i < kWidth; ++i) {
            const std::string number = std::to_string(layer);
            text += "n" + number + "_" + std::to_string(i) + ": provides b" + number +
                    (layer > 0 ? " requires b" + std::to_string(layer - 1) : "") + "\n";
        }
    }
    TestGraph graph(text);
    const std::string order = graph.Starts(8, true);
    for (int layer = 1; layer < kLayers; ++layer) {
        for (int i = 0; i < kWidth * kWidth; ++i) {
            const std::string before = "n" + std::to_string(layer - 1) + "_" + std::to_string(i / kWidth);
            const std::string after = "n" + std::to_string(layer) + "_" + std::to_string(i % kWidth);
            ASSERT_TRUE(IsBefore(order, before, after)) << before << " " << after;
        }
    }
}

TEST(Executor, HasNoThreadsWhenItIsToHaveFewerThanNone) {
    const auto countThreads = [] {
        const std::filesystem::directory_iterator threads("/proc/self/task");
        return std::distance(begin(threads), end(threads));
    };
    const auto before = countThreads();
    const Executor executor(-1, false);
    EXPECT_LE(countThreads(), before);
}

TEST(Executor, WithoutThreadsLeavesNodesQueued) {
    TestGraph graph("a:");
    Executor executor(0, false);
    graph["a"].ScheduleStart(executor);
    EXPECT_EQ(graph["a"].State(), NodeState::StartQueued);
    // A driver waits for ever: it is still waiting when somebody else has run the node at last.
    auto driver = std::async(std::launch::async, [&] { graph["a"].WaitStarted(); });
    EXPECT_EQ(driver.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    graph["a"].RunQueued(executor);
    driver.get();
    EXPECT_EQ(graph.Ran(), "a");
}

TEST(Executor, WaitsForACycleWithoutEndButRunsTheRest) {
    TestGraph graph(
        "a: requires y provides x\n"
        "b: requires x provides y\n"
        "c:\n"
        "d: requires y");
    Executor executor(1, false);
    for (Node* node : graph.Nodes()) {
        node->ScheduleStart(executor);
    }
    graph["c"].WaitStarted();
    EXPECT_EQ(graph.Ran(), "c");
    for (const char* name : {"a", "b", "d"}) {
        EXPECT_EQ(graph[name].State(), NodeState::StartPending);
    }
}

TEST(Executor, RunsAChainLongerThanAnyStack) {
    constexpr int kLength = 100'000;
    class Link : public Node {
      public:
        Link() : Node("link", kDefaultClass) {}
        void Start() override {}
        std::string DotAttributes() const override { return {}; }
    };
    const Settings settings;
    Graph graph(settings);
    std::vector<Node*> backwards;
    for (int i = 0; i < kLength; ++i) {
        Link& link = graph.Add(std::make_unique<Link>());
        if (i > 0) {
            link.AddDependency(*backwards.back());
        }
        backwards.push_back(&link);
    }
    std::reverse(backwards.begin(), backwards.end());
    Executor executor(2, false);
    StartRun(graph, backwards, executor);
    EXPECT_EQ(backwards.front()->State(), NodeState::Started);
}

// Its work is done when memory runs out for good.
class MemoryHog : public Node {
  public:
    MemoryHog() : Node("hog", kDefaultClass) {}
    void Start() override { shortage.emplace(test::Call::OperatorNew, 0); }
    std::string DotAttributes() const override { return {}; }

    std::optional<test::FailingCall> shortage;
};

TEST(Executor, NeedsNoMemoryForTheNodesBehindOneOnceARunHasBegun) {
    class Follower : public Node {
      public:
        Follower() : Node("follower", kDefaultClass) {}
        void Start() override {}
        std::string DotAttributes() const override { return {}; }
    };
    for (const bool isRandom : {false, true}) {
        const Settings settings;
        Graph graph(settings);
        MemoryHog& hog = graph.Add(std::make_unique<MemoryHog>());
        std::vector<Node*> nodes{&hog};
        for (int i = 0; i < 100; ++i) {
            nodes.push_back(&graph.Add(std::make_unique<Follower>()));
            nodes.back()->AddDependency(hog);
        }
        {
            Executor executor(1, isRandom);
            StartRun(graph, nodes, executor);
        }
        hog.shortage.reset();
        for (const Node* node : nodes) {
            EXPECT_EQ(node->State(), NodeState::Started);
        }
    }
}

TEST(Executor, NeedsNoMemoryToScheduleWhatItHasRoomFor) {
    TestGraph graph("a: provides x\nb: requires x provides y\nc: requires y");
    Executor executor(0, false);
    executor.Reserve(graph.graph.Size());
    Node& last = graph["c"];
    {
        const test::FailingCall shortage(test::Call::OperatorNew, 0);
        last.ScheduleStart(executor);
        EXPECT_FALSE(shortage.Happened());
    }
    EXPECT_EQ(executor.Take(), &graph["a"]);
}

TEST(Executor, LetsAWorkerFinishItsNodeWhenItIsDestroyed) {
    TestGraph graph("a:\nb:");
    graph.Hold("a");
    auto executor = std::make_unique<Executor>(1, false);
    graph["a"].ScheduleStart(*executor);
    ASSERT_TRUE(graph.AwaitWorking("a"));
    graph["b"].ScheduleStart(*executor);
    const int joins = test::Joins();
    auto destruction = std::async(std::launch::async, [&] { executor.reset(); });
    ASSERT_TRUE(test::WaitUntil([&] { return test::Joins() > joins; }));
    EXPECT_EQ(graph.Working(), "a");
    graph.Release("a");
    destruction.get();
    EXPECT_EQ(graph["a"].State(), NodeState::Started);
    EXPECT_EQ(graph["b"].State(), NodeState::StartQueued);  // the queue is not drained
}

class ThrowingNode : public Node {
  public:
    ThrowingNode() : Node("throwing", kDefaultClass) {}
    void Start() override { throw std::runtime_error("against the contract"); }
    std::string DotAttributes() const override { return {}; }
};

TEST(Executor, EndsTheProcessWithANodeThatThrows) {
    test::ForkedChild child([] {
        ThrowingNode node;
        Executor executor(1, false);
        node.ScheduleStart(executor);
        node.WaitStarted();
        return 0;
    });
    EXPECT_EQ(child.Wait(), -SIGABRT);
}

TEST(Executor, SaysHowManyThreadsItCouldCreate) {
    const test::FailingCall failing(test::Call::PthreadCreate, 3);
    EXPECT_EQ(test::FailureOf<Exception>([&] { Executor executor(8, false); }),
              "Could not create enough execution threads. (3 created, 8requested)");
}

TEST(Executor, SaysHowManyThreadsItHadMemoryFor) {
    for (const int allocations : {0, 1}) {
        const std::string created = std::to_string(allocations);  // one for each thread
        const std::string expected = "Could not create enough execution threads. (" + created + " created, 2requested)";
        const test::FailingCall failing(test::Call::OperatorNew, allocations, 1);
        EXPECT_EQ(test::FailureOf<Exception>([&] { Executor executor(2, false); }), expected);
    }
}

TEST(Executor, SaysSoWhenItsConditionVariableIsRefused) {
    const test::FailingCall failing(test::Call::PthreadCondInit, 0);
    EXPECT_EQ(test::FailureOf<Exception>([&] { Executor executor(1, false); }),
              "Condition variable for Executor could not be initialized");
}

}  // namespace
}  // namespace lofter
