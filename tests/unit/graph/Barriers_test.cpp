#include "graph/Barriers.h"

#include <gtest/gtest.h>

#include "base/Logging.h"
#include "support/ChildOutcome.h"
#include "support/Faults.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"
#include "support/TestGraph.h"

namespace lofter {
namespace {

using test::LogCapture;
using test::Names;
using test::TestGraph;

std::string BarrierNames(const Graph& graph) {
    const std::vector<InitBarrier*> barriers = graph.AllBarriers();
    return Names({barriers.begin(), barriers.end()});
}

TEST(Graph, CreatesABarrierOnFirstMentionOnly) {
    TestGraph empty("");
    Graph& graph = empty.graph;
    EXPECT_EQ(graph.GetBarrier("net", false), nullptr);
    InitBarrier* net = graph.GetBarrier("net", true);
    ASSERT_NE(net, nullptr);
    EXPECT_EQ(graph.GetBarrier("net", true), net);
    EXPECT_EQ(graph.GetBarrier("net", false), net);
    EXPECT_EQ(net->ScheduleClass(), 1U);
    EXPECT_EQ(graph.Size(), 1U);
}

TEST(Graph, ListsBarriersInByteWiseOrderOfTheirNames) {
    TestGraph empty("");
    for (const char* name : {"b", "a", "\xc3\xa4", "B", "a b", ""}) {
        empty.graph.GetBarrier(name, true);
    }
    EXPECT_EQ(BarrierNames(empty.graph), " B a a b b \xc3\xa4");
}

TEST(Graph, ReplacesAnEarlierEntryOfTheSameName) {
    TestGraph empty("");
    Graph& graph = empty.graph;
    InitBarrier* first = graph.GetBarrier("net", true);
    InitBarrier* other = graph.GetBarrier("other", true);
    graph.RegisterBarrier(other, "net");
    EXPECT_EQ(graph.GetBarrier("net", false), other);
    EXPECT_EQ(first->Name(), "net");
}

TEST(Graph, SharesNothingWithAnotherOne) {
    TestGraph first("a: provides net priority 1");
    TestGraph second("b: requires net\nc: priority 1");
    EXPECT_NE(&first.Barrier("net"), &second.Barrier("net"));
    EXPECT_EQ(Names(second.graph.GetPriorityBarrier(1)->Dependencies()), "c");
    EXPECT_EQ(first.Starts(), "a");
    EXPECT_EQ(second["b"].State(), NodeState::Idle);
}

TEST(InitBarrier, ThatNobodyProvidesIsReportedAndPassesAllTheSame) {
    TestGraph graph(
        "a: requires network\n"
        "b: requires network");
    LogCapture log;
    EXPECT_EQ(graph.Starts(), "a b");
    EXPECT_EQ(graph.Barrier("network").State(), NodeState::Started);
    EXPECT_EQ(
        log.Lines(kWarning),
        std::vector<std::string>{"Lofter dependency error: Initialization barrier \"network\" is not provided by any "
                                 "plugin but the following plugins require it: \"a\", \"b\""});
}

TEST(InitBarrier, RaisesTheReportAsTheHostsAlert) {
    TestGraph graph("a: requires network");
    LogCapture log;
    graph.Starts();
    EXPECT_EQ(log.Alerts(),
              std::vector<std::string>{"Lofter dependency error: Initialization barrier \"network\" is not provided "
                                       "by any plugin but the following plugins require it: \"a\""});
}

TEST(InitBarrier, RaisesNoAlertWhenOneMethodIsInvoked) {
    TestGraph graph("a: requires network");
    LogCapture log;
    graph.settings.invoke = true;
    graph.Starts();
    EXPECT_TRUE(log.Alerts().empty());
    EXPECT_EQ(log.Lines(kWarning).size(), 1U);
}

TEST(InitBarrier, RaisesTheAlertBeforeItLogsTheReport) {
    const test::TemporaryDirectory host;
    host.Write("run/issue.d", "no folder");
    EXPECT_EQ(test::InForkedChild([&] {
                  TestGraph graph("a: requires network");
                  const LogCapture log;
                  test::EnterRoot(host.Path());
                  graph.Starts();
                  return log.Lines(kWarning).at(0).substr(0, 33) + "|" + log.Lines(kWarning).at(1).substr(0, 23);
              }),
              "unable to raise the system alert:|Lofter dependency error");
}

TEST(InitBarrier, WithAProviderSaysNothing) {
    TestGraph graph(
        "b: requires network\n"
        "a: provides network");
    LogCapture log;
    EXPECT_EQ(graph.Starts(), "a b");
    EXPECT_TRUE(log.Lines().empty());
}

TEST(InitBarrier, ThatIsOnlyProvidedHasNoEffect) {
    TestGraph graph(
        "a: provides unused\n"
        "b:");
    LogCapture log;
    EXPECT_EQ(graph.Starts(), "a b");
    EXPECT_TRUE(log.Lines().empty());
    EXPECT_EQ(graph.Barrier("unused").DotAttributes(), " shape=box");
}

TEST(InitBarrier, ThatIsOnlyProvidedStartsAfterItsProvidersWhenItIsAskedTo) {
    TestGraph graph(
        "a: provides unused\n"
        "b: provides unused");
    LogCapture log;
    InitBarrier* unused = &graph.Barrier("unused");
    Executor executor(0, false);
    unused->ScheduleStart(executor);
    EXPECT_EQ(graph["a"].State(), NodeState::StartQueued);
    graph["a"].RunQueued(executor);
    EXPECT_EQ(unused->State(), NodeState::StartPending);
    graph["b"].RunQueued(executor);
    EXPECT_EQ(unused->State(), NodeState::StartQueued);
    unused->RunQueued(executor);
    EXPECT_EQ(unused->State(), NodeState::Started);
    EXPECT_TRUE(log.Lines().empty());
}

TEST(InitBarrier, WhoseComplaintFindsNoMemoryHoldsNothingUp) {
    TestGraph graph("a: requires nothing");
    LogCapture log;
    Executor executor(0, false);
    InitBarrier* nothing = &graph.Barrier("nothing");
    graph["a"].ScheduleStart(executor);
    {
        const test::FailingCall failing(test::Call::OperatorNew, 0, 1);
        nothing->Start();
    }
    EXPECT_EQ(log.Lines(kError),
              std::vector<std::string>{"unhandled exception whilst processing nothing: std::bad_alloc"});
    nothing->RunQueued(executor);
    EXPECT_EQ(graph["a"].State(), NodeState::StartQueued);
}

TEST(InitBarrier, StartsAfterAllItsProviders) {
    TestGraph graph(
        "user: requires x\n"
        "p1: provides x\n"
        "p2: provides x");
    EXPECT_EQ(graph.Starts(), "p1 p2 user");
}

TEST(PriorityBarrier, IsNamedAfterItsPriority) {
    TestGraph empty("");
    Graph& graph = empty.graph;
    PriorityBarrier* barrier = graph.GetPriorityBarrier(20);
    EXPECT_EQ(barrier->Name(), "_<->_priority_<->_20");
    EXPECT_EQ(barrier->Priority(), 20U);
    EXPECT_EQ(barrier->DotAttributes(), " shape=trapezium");
    EXPECT_EQ(graph.GetPriorityBarrier(20), barrier);
    EXPECT_EQ(graph.GetBarrier("_<->_priority_<->_20", false), barrier);
    EXPECT_EQ(graph.GetPriorityBarrier(4294967295U)->Name(), "_<->_priority_<->_4294967295");
}

TEST(PriorityBarrier, CreatedOutOfOrderStillFormsAnAscendingChain) {
    TestGraph graph(
        "c: priority 30\n"
        "a: priority 10\n"
        "b: priority 20");
    EXPECT_EQ(graph.Starts(), "a b c");
    EXPECT_EQ(Names(graph.Priority(20).Dependencies()), "_<->_priority_<->_10 b");
    // The plugin of group 30 waits for barrier 20, and keeps the link to barrier 10 that it had before.
    EXPECT_EQ(Names(graph["c"].Dependencies()), "_<->_priority_<->_10 _<->_priority_<->_20");
    EXPECT_EQ(Names(graph.Priority(30).Dependencies()), "c _<->_priority_<->_10 _<->_priority_<->_20");
}

TEST(PriorityBarrier, LetsTheLowestGroupWaitForNothing) {
    TestGraph graph(
        "first: priority 5\n"
        "second: priority 6");
    EXPECT_TRUE(graph["first"].Dependencies().empty());
    EXPECT_EQ(Names(graph["first"].Dependents()), "_<->_priority_<->_5");
}

TEST(PriorityBarrier, ReportsNoMissingProviders) {
    TestGraph graph("");
    LogCapture log;
    graph.Priority(7).Start();
    EXPECT_TRUE(log.Lines().empty());
}

TEST(PriorityBarrier, KeepsGroupsApartAndLetsAGroupRunTogether) {
    TestGraph graph(
        "a1: priority 1\n"
        "a2: priority 1\n"
        "b1: priority 2");
    graph.Hold("a1");
    graph.Hold("a2");
    Executor executor(3, false);
    for (Node* node : graph.Nodes()) {
        node->ScheduleStart(executor);
    }
    ASSERT_TRUE(graph.AwaitWorking("a1"));
    ASSERT_TRUE(graph.AwaitWorking("a2"));
    EXPECT_EQ(graph.Working(), "a1 a2");
    graph.Release("a1");
    graph["a1"].WaitStarted();
    EXPECT_EQ(graph["b1"].State(), NodeState::StartPending);
    graph.Release("a2");
    graph["b1"].WaitStarted();
}

TEST(PriorityBarrier, StopsGroupsInDescendingOrder) {
    TestGraph graph(
        "a: priority 1\n"
        "c: priority 3\n"
        "b: priority 2");
    EXPECT_EQ(graph.Stops(), "c b a");
}

TEST(PriorityBarrier, TakesTheNameFromABarrierThatAPluginMentionedBefore) {
    TestGraph graph("a: requires _<->_priority_<->_9");
    InitBarrier* mentioned = &graph.Barrier("_<->_priority_<->_9");
    PriorityBarrier* barrier = graph.graph.GetPriorityBarrier(9);
    EXPECT_NE(static_cast<InitBarrier*>(barrier), mentioned);
    EXPECT_EQ(&graph.Barrier("_<->_priority_<->_9"), barrier);
    EXPECT_EQ(Names(graph["a"].Dependencies()), "_<->_priority_<->_9");
}

}  // namespace
}  // namespace lofter
