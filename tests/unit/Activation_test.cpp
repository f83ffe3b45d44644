#include "Activation.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <regex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "base/Exception.h"
#include "base/GraphLock.h"
#include "base/Logging.h"
#include "base/Settings.h"
#include "graph/Executor.h"
#include "graph/GraphRun.h"
#include "plugins/Plugin.h"
#include "support/ChildOutcome.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"
#include "support/WillingOperator.h"
#include "tslibs/dictionary.h"
#include "tslibs/log.h"

namespace lofter {
namespace {

using Texts = std::vector<std::string>;
using Entries = std::vector<test::LogCapture::Entry>;

// Notes which operations were called; each does what the test wants.
class FakePlugin : public Plugin {
  public:
    using Operation = std::function<void()>;

    explicit FakePlugin(
        Activator& pluginActivator, Operation startOperation = [] {}, const std::string& pluginName = "net")
        : Plugin(PluginDescription(PluginKind::Debug, pluginName), pluginActivator), start(std::move(startOperation)) {}

    void StartPlugin() override {
        calls += "start ";
        start();
    }
    bool HasApplyHostProfile() const override {
        hasApply();
        return takesPart;
    }
    void ApplyHostProfile() override {
        calls += "apply ";
        apply();
    }

    std::string calls;
    bool takesPart = false;
    Operation start;
    Operation apply = [] {
    };
    Operation hasApply = [] {
    };
};

void FailAsMethod() {
    throw MethodFailedException("start", "net", "x");
}

void FailOtherwise() {
    throw std::runtime_error("out of cheese");
}

void FailWithoutText() {
    throw 42;
}

class ActivationTest : public testing::Test {
  protected:
    Settings settings;
    test::WillingOperator willing;
    Activation activation{settings, willing};
};

// ---- The outcome in the system log and the kernel's boot log, on a host that has nothing but the latter

struct Report {
    std::string bootLog;
    std::string systemLog;  // "<level> <text>|" per message
    bool operator==(const Report&) const = default;
};

void PrintTo(const Report& report, std::ostream* stream) {
    *stream << report.bootLog << "\n" << report.systemLog;
}

class ActivationReport : public ActivationTest {
  protected:
    ActivationReport() { host.Write("dev/kmsg", ""); }

    Report Activate(FakePlugin& plugin) {
        Report report;
        report.systemLog = test::InForkedChild([&] {
            const test::LogCapture log;
            test::EnterRoot(host.Path());
            plugin.Start();
            std::string text;
            for (const auto& entry : log.Entries()) {
                text += test::TextOf(entry) + "|";
            }
            return std::regex_replace(text, std::regex("took [0-9]+ us"), "took N us");
        });
        report.bootLog = std::regex_replace(host.Read("dev/kmsg"), std::regex("<6>lofter: (.*)\n"), "|$1");
        host.Write("dev/kmsg", "");
        return report;
    }

    Report Activate(const FakePlugin::Operation& start) {
        FakePlugin plugin(activation, start);
        return Activate(plugin);
    }

    test::TemporaryDirectory host;
};

TEST_F(ActivationReport, OfASuccessNamesThePluginTwiceInTheBootLog) {
    EXPECT_EQ(Activate([] {}), (Report{"|Activating Lofter plugin net.|Lofter plugin net activated.",
                                       "info executing start plugin: net|"}));
}

TEST_F(ActivationReport, OfAFailedMethodCarriesItsText) {
    EXPECT_EQ(Activate(FailAsMethod),
              (Report{"|Activating Lofter plugin net.|Lofter plugin net activation failed: net->start() failed: x",
                      "info executing start plugin: net|error Method invocation failed: net->start() failed: x|"}));
}

TEST_F(ActivationReport, OfAnyOtherExceptionCarriesItsText) {
    EXPECT_EQ(
        Activate(FailOtherwise),
        (Report{"|Activating Lofter plugin net.|Lofter plugin net activation failed: out of cheese",
                "info executing start plugin: net|error unhandled exception whilst processing net: out of cheese|"}));
}

TEST_F(ActivationReport, OfSomethingElseThrownSaysThatItIsUnknown) {
    EXPECT_EQ(Activate(FailWithoutText),
              (Report{"|Activating Lofter plugin net.|Lofter plugin net activation failed: unknown exception",
                      "info executing start plugin: net|error ignoring unknown exception whilst processing net ...|"}));
}

TEST_F(ActivationReport, OfAHostProfilePredicateThatThrowsIsAFailure) {
    FakePlugin plugin(activation);
    plugin.hasApply = FailOtherwise;
    EXPECT_EQ(Activate(plugin),
              (Report{"|Activating Lofter plugin net.|Lofter plugin net activation failed: out of cheese",
                      "error unhandled exception whilst processing net: out of cheese|"}));
}

TEST_F(ActivationReport, OfATracedRunHasBothEndsForSuccessAndFailureAlike) {
    settings.trace = true;
    EXPECT_EQ(Activate([] {}).systemLog,
              "info starting execution of plugin: net|info executing start plugin: net|"
              "info completed execution of plugin: net (took N us)|");
    EXPECT_EQ(Activate(FailAsMethod).systemLog,
              "info starting execution of plugin: net|info executing start plugin: net|"
              "error Method invocation failed: net->start() failed: x|"
              "info completed execution of plugin: net (took N us)|");
}

TEST_F(ActivationReport, OfAMethodThatIsNotKnownIsASuccessWithoutACall) {
    for (const std::string method : {"stop", "Start", "apply", "start "}) {
        settings.method = method;
        EXPECT_EQ(Activate(FailAsMethod), (Report{"|Activating Lofter plugin net.|Lofter plugin net activated.", ""}));
    }
}

TEST_F(ActivationReport, OfANamedMethodThatFailsSaysThatTheInvocationFailed) {
    settings.method = "start";
    EXPECT_EQ(Activate(FailOtherwise),
              (Report{"|Activating Lofter plugin net.|Lofter plugin net activation failed: Method invocation failed",
                      "info executing start plugin: net|"
                      "error unable to invoke method 'start' on plugin 'net': out of cheese|"}));
}

TEST_F(ActivationReport, OfAnOddNameKeepsItAsItIs) {
    FakePlugin plugin(
        activation, [] {}, "%s 'n\xc3\xa4me' %n");
    EXPECT_EQ(Activate(plugin), (Report{"|Activating Lofter plugin %s 'n\xc3\xa4me' %n.|"
                                        "Lofter plugin %s 'n\xc3\xa4me' %n activated.",
                                        "info executing start plugin: %s 'n\xc3\xa4me' %n|"}));
}

// The kernel's boot log and the program's own, in one file.
TEST_F(ActivationReport, HasItsStepsInOrder) {
    settings.trace = true;
    FakePlugin plugin(activation, [] { Log_Level(kInfo, "at work"); });
    test::InForkedChild([&] {
        test::EnterRoot(host.Path());
        ::dup2(::open("/dev/kmsg", O_WRONLY | O_APPEND), STDOUT_FILENO);
        Log_AddOutput(Log_NewStdioOutput(Dictionary_Create()));
        plugin.Start();
        return std::string();
    });
    EXPECT_EQ(std::regex_replace(host.Read("dev/kmsg"), std::regex("(<6>|info )[a-z_]+: |took [0-9]+ us"), ""),
              "starting execution of plugin: net\n"
              "Activating Lofter plugin net.\n"
              "executing start plugin: net\n"
              "at work\n"
              "completed execution of plugin: net ()\n"
              "Lofter plugin net activated.\n");
}

// ---- Host profiles

TEST_F(ActivationReport, WithoutAHostProfileIsThatOfTheStartOperation) {
    FakePlugin plugin(activation);
    plugin.takesPart = true;
    EXPECT_EQ(Activate(plugin).systemLog, "info executing start plugin: net|");
}

TEST_F(ActivationReport, WithAHostProfileIsThatOfTheHostProfileOperation) {
    FakePlugin plugin(activation);
    plugin.takesPart = true;
    for (const std::string file : {"etc/tessel/hostprofile.xml", "etc/tessel/hostprofile.xml.gz"}) {
        host.Write(file, "");
        EXPECT_EQ(Activate(plugin), (Report{"|Activating Lofter plugin net.|Lofter plugin net activated.",
                                            "info executing host profile plugin: net|"}))
            << file;
        std::filesystem::remove(host / file);
    }
}

TEST_F(ActivationReport, WithAHostProfileIsThatOfTheStartOperationForPluginsThatTakeNoPart) {
    host.Write("etc/tessel/hostprofile.xml", "");
    EXPECT_EQ(Activate([] {}).systemLog, "info executing start plugin: net|");
}

TEST_F(ActivationReport, OfAFailingHostProfileCarriesItsText) {
    host.Write("etc/tessel/hostprofile.xml", "");
    FakePlugin plugin(activation);
    plugin.takesPart = true;
    plugin.apply = [] {
        throw NotImplementedException("DebugPlugin::ApplyHostProfile");
    };
    EXPECT_EQ(Activate(plugin).bootLog,
              "|Activating Lofter plugin net.|Lofter plugin net activation failed: "
              "method `DebugPlugin::ApplyHostProfile' is not implemented");
}

TEST_F(ActivationReport, WithANamedMethodTakesNoNoticeOfHostProfiles) {
    host.Write("etc/tessel/hostprofile.xml", "");
    FakePlugin plugin(activation);
    plugin.takesPart = true;
    settings.method = "start";
    EXPECT_EQ(Activate(plugin).systemLog, "info executing start plugin: net|");
}

TEST_F(ActivationReport, LooksForAHostProfileOncePerProcess) {
    EXPECT_EQ(test::InForkedChild([&] {
                  test::EnterRoot(host.Path());
                  FakePlugin bystander(activation);
                  bystander.Start();  // does not ask
                  std::filesystem::create_directories("/etc/tessel");
                  std::ofstream("/etc/tessel/hostprofile.xml.gz") << "";
                  FakePlugin first(activation);
                  first.takesPart = true;
                  first.Start();
                  std::filesystem::remove("/etc/tessel/hostprofile.xml.gz");
                  FakePlugin second(activation);
                  second.takesPart = true;
                  second.Start();
                  return bystander.calls + first.calls + second.calls;
              }),
              "start apply apply ");
    EXPECT_EQ(test::InForkedChild([&] {
                  test::EnterRoot(host.Path());
                  FakePlugin first(activation);
                  first.takesPart = true;
                  first.Start();
                  std::ofstream("/etc/tessel/hostprofile.xml") << "";
                  FakePlugin second(activation);
                  second.takesPart = true;
                  second.Start();
                  return first.calls + second.calls;
              }),
              "start start ");
}

TEST_F(ActivationTest, TakesTheProgramWideLockForTheHostProfileOnly) {
    FakePlugin other(activation);
    FakePlugin participant(activation);
    participant.takesPart = true;
    auto lock = std::make_unique<GraphLock>();
    std::async(std::launch::async, [&] { other.Start(); }).get();
    auto started = std::async(std::launch::async, [&] { participant.Start(); });
    EXPECT_EQ(started.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    EXPECT_EQ(participant.calls, "");
    lock.reset();
    started.get();
    EXPECT_NE(participant.calls, "");
}

// ---- The operator

TEST_F(ActivationTest, AsksTheOperatorAndDoesNothingWhenThePluginIsToBeSkipped) {
    FakePlugin plugin(activation);
    willing.answer = false;
    plugin.Start();
    EXPECT_EQ(willing.asked, "net ");
    EXPECT_EQ(plugin.calls, "");
    EXPECT_GT(plugin.StartTime().tv_sec, 0);
    EXPECT_EQ(plugin.EndTime().tv_sec, 0);
}

// ---- Times

TEST_F(ActivationTest, StampsBothTimesAroundTheOperation) {
    FakePlugin plugin(activation);
    timeval within{};
    plugin.start = [&] {
        gettimeofday(&within, nullptr);
        EXPECT_FALSE(timercmp(&plugin.StartTime(), &within, >));
        EXPECT_EQ(plugin.EndTime().tv_sec, 0);
    };
    timeval earliest{};
    gettimeofday(&earliest, nullptr);
    plugin.Start();
    timeval latest{};
    gettimeofday(&latest, nullptr);
    EXPECT_FALSE(timercmp(&plugin.StartTime(), &earliest, <));
    EXPECT_FALSE(timercmp(&plugin.EndTime(), &within, <));
    EXPECT_FALSE(timercmp(&plugin.EndTime(), &latest, >));
}

TEST_F(ActivationTest, StampsTheEndOfAFailureToo) {
    FakePlugin plugin(activation, FailWithoutText);
    plugin.Start();
    EXPECT_GT(plugin.EndTime().tv_sec, 0);
}

TEST_F(ActivationTest, LetsWhatDependsOnAFailedPluginRun) {
    FakePlugin provider(activation, FailOtherwise);
    FakePlugin consumer(
        activation, [] {}, "ntp");
    consumer.AddDependency(provider);
    Executor executor(1, false);
    const Graph graph(settings);
    StartRun(graph, {&consumer, &provider}, executor);
    EXPECT_EQ(provider.State(), NodeState::Started);
    EXPECT_EQ(consumer.calls, "start ");
}

// ---- Methods by name

class InvokeMethodTest : public ActivationTest {
  protected:
    test::LogCapture log;
};

TEST_F(InvokeMethodTest, CallsTheOperationOfThatName) {
    FakePlugin plugin(activation);
    EXPECT_TRUE(InvokeMethod(plugin, "start"));
    EXPECT_TRUE(InvokeMethod(plugin, "apply_host_profile"));
    EXPECT_EQ(plugin.calls, "start apply ");
    EXPECT_EQ(log.Entries(),
              (Entries{{kInfo, "executing start plugin: net"}, {kInfo, "executing host profile plugin: net"}}));
}

TEST_F(InvokeMethodTest, SucceedsWithoutACallForAnyOtherName) {
    FakePlugin plugin(activation);
    for (const std::string method : {"stop", "restart", "", "StartPlugin"}) {
        EXPECT_TRUE(InvokeMethod(plugin, method));
    }
    EXPECT_EQ(plugin.calls, "");
    EXPECT_EQ(log.Entries(), Entries{});
}

TEST_F(InvokeMethodTest, ReportsEveryKindOfFailure) {
    for (const auto& [operation, message] : std::vector<std::pair<FakePlugin::Operation, std::string>>{
             {FailAsMethod, "Method invocation failed: net->start() failed: x"},
             {FailOtherwise, "unable to invoke method 'start' on plugin 'net': out of cheese"},
             {FailWithoutText, "unknown exception whilst attempting to execute method 'start' on plugin 'net'"}}) {
        log.Clear();
        FakePlugin plugin(activation, operation);
        EXPECT_FALSE(InvokeMethod(plugin, "start"));
        EXPECT_EQ(log.Lines(kError), Texts{message});
    }
    FakePlugin plugin(activation);
    plugin.apply = FailOtherwise;
    log.Clear();
    EXPECT_FALSE(InvokeMethod(plugin, "apply_host_profile"));
    EXPECT_EQ(log.Lines(kError), Texts{"unable to invoke method 'apply_host_profile' on plugin 'net': out of cheese"});
}

}  // namespace
}  // namespace lofter
