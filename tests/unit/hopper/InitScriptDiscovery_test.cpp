#include "hopper/InitScriptDiscovery.h"

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <iterator>
#include <memory>
#include <new>
#include <sstream>
#include <utility>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/Exception.h"
#include "base/Logging.h"
#include "base/Settings.h"
#include "graph/Executor.h"
#include "graph/Graph.h"
#include "graph/GraphRun.h"
#include "hopper/LegacyDaemonPlugin.h"
#include "support/BreakingStream.h"
#include "support/ChildOutcome.h"
#include "support/Faults.h"
#include "support/LogCapture.h"
#include "support/OpenDescriptors.h"
#include "support/Plugins.h"
#include "support/TestGraph.h"

namespace lofter {
namespace {

using Lines = std::vector<std::string>;

// The scripts as "path:priority" words.
std::string Text(const std::vector<InitScript>& scripts) {
    std::string text;
    for (const InitScript& script : scripts) {
        text += (text.empty() ? "" : " ") + script.path + ":" + std::to_string(script.priority);
    }
    return text;
}

std::string Read(const std::string& output) {
    std::istringstream stream(output);
    return Text(ReadInitScripts(stream));
}

std::string Skipped(const std::string& line) {
    return "Skipping a line that is not an init.d script and its priority: '" + line + "'";
}

TEST(InitScriptList, KeepsTheScriptsInFrontOfAFailureAndSaysSo) {
    const test::LogCapture log;
    test::BreakingStream stream("/etc/init.d/sshd 10\n/etc/init.d/crond 2");
    EXPECT_EQ(Text(ReadInitScripts(stream)), "/etc/init.d/sshd:10");
    EXPECT_EQ(log.Lines(), Lines{"unable to read all init.d scripts and their priorities"});
}

TEST(InitScriptList, NamesAPathAndAPriorityOnEachLine) {
    const test::LogCapture log;
    EXPECT_EQ(Read("/etc/init.d/sshd 10\n/etc/init.d/crond 20\n"), "/etc/init.d/sshd:10 /etc/init.d/crond:20");
    EXPECT_EQ(log.Lines(), Lines{});
}

TEST(InitScriptList, MayBeEmpty) {
    const test::LogCapture log;
    EXPECT_EQ(Read(""), "");
    EXPECT_EQ(log.Lines(), Lines{});
}

TEST(InitScriptList, AllowsAnyBlanksAndFurtherWords) {
    EXPECT_EQ(Read("\t /etc/init.d/sshd \t 10  on off\n/etc/init.d/crond 20\r\n"),
              "/etc/init.d/sshd:10 /etc/init.d/crond:20");
}

TEST(InitScriptList, MayLackTheLastLineEnd) {
    EXPECT_EQ(Read("/etc/init.d/sshd 10\n/etc/init.d/crond 20"), "/etc/init.d/sshd:10 /etc/init.d/crond:20");
}

TEST(InitScriptList, KeepsEqualScriptsAndPriorities) {
    EXPECT_EQ(Read("/a 1\n/b 1\n/a 1\n"), "/a:1 /b:1 /a:1");
}

TEST(InitScriptList, TakesPrioritiesOfTheWholeSignedRange) {
    EXPECT_EQ(Read("/a -5\n/b +5\n/c 007\n/d 2147483647\n/e -2147483648\n/f 0\n"),
              "/a:-5 /b:5 /c:7 /d:2147483647 /e:-2147483648 /f:0");
}

TEST(InitScriptList, SkipsAndQuotesEveryLineThatDoesNotFit) {
    const test::LogCapture log;
    EXPECT_EQ(Read("/a\n\n/b ten\n/good 1\n/c 2147483648\n/d -2147483649\n/e 1x\n/f 1.5\n/g 0x10\n"), "/good:1");
    EXPECT_EQ(log.Lines(kWarning),
              (Lines{Skipped("/a"), Skipped(""), Skipped("/b ten"), Skipped("/c 2147483648"), Skipped("/d -2147483649"),
                     Skipped("/e 1x"), Skipped("/f 1.5"), Skipped("/g 0x10")}));
}

TEST(InitScriptList, QuotesGarbageInAFormFitForALog) {
    const test::LogCapture log;
    EXPECT_EQ(Read(std::string("\x1b[31m%s\0%n\n", 11) + std::string(1000, 'x') + "\n"), "");
    EXPECT_EQ(log.Lines(), (Lines{Skipped("\\x1b[31m%s\\x00%n"), Skipped(std::string(200, 'x') + "...")}));
}

TEST(InitScriptList, ComesFromTheOutputOfAShellCommand) {
    const test::LogCapture log;
    EXPECT_EQ(Text(ListInitScripts("echo /etc/init.d/sshd 10; echo /etc/init.d/crond 20")),
              "/etc/init.d/sshd:10 /etc/init.d/crond:20");
    EXPECT_EQ(log.Lines(), Lines{});
}

TEST(InitScriptList, IsEmptyWhenTheToolCannotBeRun) {
    const test::LogCapture log;
    EXPECT_EQ(Text(ListInitScripts("/no/such/chkconfig -p 2>&-")), "");
    EXPECT_EQ(log.Entries(),
              (std::vector<test::LogCapture::Entry>{{kWarning, "/no/such/chkconfig -p 2>&- exited with status 127"}}));
}

TEST(InitScriptList, CountsEvenWhenTheToolFailsAfterwards) {
    const test::LogCapture log;
    EXPECT_EQ(Text(ListInitScripts("echo /etc/init.d/sshd 10; exit 3")), "/etc/init.d/sshd:10");
    EXPECT_EQ(Text(ListInitScripts("echo /etc/init.d/sshd 10; kill -9 $$")), "/etc/init.d/sshd:10");
    EXPECT_EQ(log.Lines(kWarning), (Lines{"echo /etc/init.d/sshd 10; exit 3 exited with status 3",
                                          "echo /etc/init.d/sshd 10; kill -9 $$ was killed by signal 9"}));
}

TEST(InitScriptList, CountsWithoutAnExitStatusOfTheTool) {
    EXPECT_EQ(test::InForkedChild([] {
                  const test::LogCapture log;
                  std::signal(SIGCHLD, SIG_IGN);  // children leave no status then
                  const std::string scripts = Text(ListInitScripts("echo /etc/init.d/sshd 10"));
                  return scripts + "; " + log.Lines(kWarning).at(0);
              }),
              "/etc/init.d/sshd:10; echo /etc/init.d/sshd 10: no exit status: No child processes");
}

TEST(InitScriptList, LeavesNoDescriptorAndNoChildBehind) {
    const std::set<int> before = test::OpenDescriptors();
    ListInitScripts("echo /etc/init.d/sshd 10");
    ListInitScripts("exit 3");
    EXPECT_EQ(test::OpenDescriptors(), before);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

// Changes how many descriptors there may be, down from and up to what the process started with.
void AllowDescriptors(bool all) {
    rlimit limits{};
    getrlimit(RLIMIT_NOFILE, &limits);
    limits.rlim_cur = all ? limits.rlim_max : STDERR_FILENO + 1;
    setrlimit(RLIMIT_NOFILE, &limits);
}

// Runs in a process of its own: says on standard error why there is no list.
[[noreturn]] void SayWhyThereIsNoList() {
    std::string reason = "there is a list";
    try {
        ListInitScripts("echo /etc/init.d/sshd 10");
    } catch (const Exception& failure) {
        AllowDescriptors(true);  // sanitizers look at objects through a pipe
        reason = failure.what();
    }
    reason += "\n";
    _exit(write(STDERR_FILENO, reason.data(), reason.size()) > 0 ? 0 : 1);
}

TEST(InitScriptListDeathTest, CannotBeReadWithoutAPipe) {
    EXPECT_EXIT(
        {
            AllowDescriptors(false);
            SayWhyThereIsNoList();
        },
        testing::ExitedWithCode(0), "^Failed obtaining list of init.d scripts\n$");
}

TEST(InitScriptListDeathTest, CannotBeReadFromStandardInput) {
    EXPECT_EXIT(
        {
            close(STDIN_FILENO);
            SayWhyThereIsNoList();
        },
        testing::ExitedWithCode(0), "^Failed obtaining list of init.d scripts\n$");
}

class DaemonPluginsTest : public testing::Test {
  protected:
    std::vector<Plugin*> Make(const std::vector<InitScript>& scripts, int startStopFlag = 0) {
        return MakeDaemonPlugins(scripts, startStopFlag, {graph, test::NoActivator::Instance(), {}});
    }

    // The names of the plugins made.
    std::string Made(const std::vector<InitScript>& scripts, int startStopFlag = 0) {
        const std::vector<Plugin*> plugins = Make(scripts, startStopFlag);
        return test::Names({plugins.begin(), plugins.end()});
    }

    const Settings settings;
    Graph graph{settings};
};

TEST_F(DaemonPluginsTest, AreNamedAfterTheFileOfTheScriptInTheOrderOfTheList) {
    EXPECT_EQ(Made({{"/etc/init.d/sshd", 30}, {"/opt/a/b/crond", 10}, {"local", 20}}), "sshd crond local");
}

TEST_F(DaemonPluginsTest, LeaveOutWhatTheBootRunStartsWhereverItIs) {
    EXPECT_EQ(
        Made({{"/etc/init.d/tssyslogd", 1}, {"/opt/hxed", 90}, {"/etc/init.d/hxed", 5}, {"/etc/init.d/hxed2", 7}}),
        "hxed2");
    EXPECT_EQ(graph.AllBarriers().size(), 1U);
}

TEST_F(DaemonPluginsTest, IncludeEveryScriptWhenStopping) {
    EXPECT_EQ(Made({{"/etc/init.d/tssyslogd", 1}, {"/opt/hxed", 90}, {"/etc/init.d/crond", 5}}, 1),
              "tssyslogd hxed crond");
}

TEST_F(DaemonPluginsTest, ShareTheBarrierOfAnEqualPriority) {
    EXPECT_EQ(Made({{"/etc/init.d/sshd", 10}, {"/etc/init.d/crond", 10}}), "sshd crond");
    EXPECT_EQ(graph.AllBarriers().size(), 1U);
    EXPECT_EQ(graph.GetPriorityBarrier(10)->Dependencies().size(), 2U);
}

// The first script's plugin cannot be made: once for its own sake, once for the sake of its group's barrier.
TEST_F(DaemonPluginsTest, AreMadeBesideOneThatCannotBe) {
    for (const int made : {0, 1}) {
        Graph ownGraph(settings);
        const test::LogCapture log;
        const test::FailingCall noCondition(test::Call::PthreadCondInit, made, 1);
        const std::vector<Plugin*> plugins = MakeDaemonPlugins({{"/etc/init.d/sshd", 10}, {"/etc/init.d/crond", 20}}, 0,
                                                               {ownGraph, test::NoActivator::Instance(), {}});
        EXPECT_EQ(test::Names({plugins.begin(), plugins.end()}), "crond") << made;
        EXPECT_EQ(log.Entries(),
                  (std::vector<test::LogCapture::Entry>{{kWarning,
                                                         "Failed to create init.d daemon plugin: sshd because: "
                                                         "Condition variable for Node could not be initialized"}}))
            << made;
        EXPECT_EQ(ownGraph.AllBarriers().size(), 1U) << made;
    }
}

TEST_F(DaemonPluginsTest, AreNeverForgottenOnceLinkedWhenMemoryRunsOut) {
    const std::vector<InitScript> scripts = {{"/etc/init.d/a-late-daemon-of-the-host", 30},
                                             {"/etc/init.d/an-early-daemon-of-the-host", 10},
                                             {"/etc/init.d/a-daemon-of-the-host-between", 20}};
    bool isShort = true;
    for (int allocations = 0; isShort; ++allocations) {
        Graph ownGraph(settings);
        std::vector<Plugin*> plugins;
        try {
            const test::FailingCall failing(test::Call::OperatorNew, allocations, 1);
            plugins = MakeDaemonPlugins(scripts, 0, {ownGraph, test::NoActivator::Instance(), {}});
            isShort = failing.Happened();
        } catch (const std::bad_alloc&) {
            isShort = true;
        }
        const std::vector<Node*> listed(plugins.begin(), plugins.end());
        std::vector<Node*> groups;
        for (const std::uint32_t priority : ownGraph.Priorities()) {
            groups.push_back(ownGraph.GetBarrier(PriorityBarrier::NameOf(priority), false));
        }
        const std::vector<InitBarrier*> barriers = ownGraph.AllBarriers();
        ASSERT_EQ(groups, std::vector<Node*>(barriers.begin(), barriers.end())) << allocations;
        ASSERT_EQ(test::Forgotten(ownGraph, listed), "") << allocations;
        Executor executor(1, false);
        StartRun(ownGraph, listed, executor);
        ASSERT_TRUE(isShort || listed.size() == scripts.size());
    }
}

TEST_F(DaemonPluginsTest, WaitForTheGroupBeforeTheirOwn) {
    const std::vector<Plugin*> plugins =
        Make({{"/etc/init.d/late", 30}, {"/etc/init.d/early", 10}, {"/etc/init.d/between", 20}});
    EXPECT_EQ(test::Names(plugins[1]->Dependencies()), "");
    EXPECT_EQ(test::Names(plugins[1]->Dependents()), "_<->_priority_<->_10");
    EXPECT_EQ(test::Names(plugins[2]->Dependencies()), "_<->_priority_<->_10");
    // The link from before the group between was made stays.
    EXPECT_EQ(test::Names(plugins[0]->Dependencies()), "_<->_priority_<->_10 _<->_priority_<->_20");
}

TEST_F(DaemonPluginsTest, PutANegativePriorityBehindEveryOther) {
    const std::vector<Plugin*> plugins = Make({{"/etc/init.d/odd", -1}, {"/etc/init.d/last", 2147483647}});
    EXPECT_EQ(static_cast<DaemonPlugin&>(*plugins[0]).Priority(), 4294967295U);
    EXPECT_EQ(plugins[0]->Dependencies(), std::vector<Node*>{graph.GetPriorityBarrier(2147483647)});
    EXPECT_NE(graph.GetBarrier("_<->_priority_<->_4294967295", false), nullptr);
}

TEST_F(DaemonPluginsTest, MayBeThousandsInOneGroup) {
    const std::vector<InitScript> scripts(20'000, {"/etc/init.d/many", 10});
    EXPECT_EQ(Make(scripts).size(), 20'000U);
    EXPECT_EQ(graph.GetPriorityBarrier(10)->Dependencies().size(), 20'000U);
}

TEST_F(DaemonPluginsTest, MayBeThousandsOfGroups) {
    std::vector<InitScript> scripts;
    for (int priority = 2000; priority > 0; --priority) {
        scripts.push_back({"/etc/init.d/many", priority});
    }
    EXPECT_EQ(Make(scripts).size(), 2000U);
    EXPECT_EQ(graph.AllBarriers().size(), 2000U);
}

}  // namespace
}  // namespace lofter
