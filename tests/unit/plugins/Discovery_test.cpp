#include "plugins/Discovery.h"

#include <algorithm>
#include <filesystem>
#include <memory>
#include <new>
#include <stdexcept>

#include <gtest/gtest.h>

#include "base/Logging.h"
#include "base/Settings.h"
#include "graph/Executor.h"
#include "graph/GraphRun.h"
#include "plugins/DebugPlugin.h"
#include "support/Faults.h"
#include "support/LogCapture.h"
#include "support/Plugins.h"
#include "support/TemporaryDirectory.h"
#include "support/TestGraph.h"

namespace lofter {
namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;
using Flags = std::set<std::string>;
using Entries = std::vector<test::LogCapture::Entry>;

// The fixture "release3" requires the barrier "network" and provides "clock"; it runs once, in its version "1.2-rc",
// needs the flags a and b and is disabled by x and y. The fixture "barriers" has neither flags nor a version; it
// requires "network" and "disk" and provides "clock" and "names".
class DiscoveryTest : public testing::Test {
  protected:
    DiscoveryTest() {
        fs::create_directory(plugins);
        input.pluginDirectory = plugins;
        input.debugConfiguration = configuration;
    }

    void Install(const std::string& fixture, const std::string& fileName) const {
        fs::copy_file(std::string(NATIVE_FIXTURES) + "/" + fixture + ".so", plugins + "/" + fileName);
    }

    void DiscoverAll() { Discovery(input, graph, test::NoActivator::Instance(), runOnce, list).DiscoverAll(); }
    void DiscoverListed(const Names& fileNames) {
        Discovery(input, graph, test::NoActivator::Instance(), runOnce, list).DiscoverListed(fileNames);
    }

    std::string Found() const { return test::Names({list.begin(), list.end()}); }

    // In the order in which the directory yields its entries, which no test may expect to be sorted.
    Names EntriesOfDirectory() const {
        Names names;
        for (const auto& entry : fs::directory_iterator(plugins)) {
            names.push_back(entry.path().filename());
        }
        return names;
    }

    test::TemporaryDirectory folder;
    const std::string plugins = folder / "plugins";
    const std::string configuration = folder / "debug.conf";
    test::LogCapture log;
    DiscoveryInput input;
    Settings settings;
    Graph graph{settings};
    std::set<std::string> runOnce;
    PluginList list;
};

// ---- Which files are plugins, and their names

TEST_F(DiscoveryTest, OfAnEmptyDirectoryFindsNothing) {
    DiscoverAll();
    EXPECT_EQ(Found(), "");
    EXPECT_EQ(log.Entries(), Entries{});
}

TEST_F(DiscoveryTest, IgnoresAFileWithoutADot) {
    folder.Write("plugins/README", "");
    DiscoverAll();
    EXPECT_EQ(log.Entries(), (Entries{{kWarning, "ignoring plugin 'README' of unspecified type..."}}));
}

TEST_F(DiscoveryTest, IgnoresAFileOfUnknownType) {
    for (const std::string name : {"notes.txt", "net.", "net.SO", "net.so.1", ".hidden", "net.so~", "%s.%n"}) {
        log.Clear();
        folder.Write("plugins/" + name, "");
        DiscoverListed({name});
        const std::string type = name.substr(name.rfind('.') + 1);
        EXPECT_EQ(log.Entries(),
                  (Entries{{kWarning, "ignoring plugin '" + name + "' of unknown type (" + type + ")..."}}));
    }
    EXPECT_EQ(Found(), "");
}

TEST_F(DiscoveryTest, NamesAPluginByItsFileWithoutLastExtensionAndLeadingLib) {
    for (const std::string name : {"net.so", "libdisk.so", "a.b.so", "liblib.so", "mylib.so", "Lib.so"}) {
        Install("barriers", name);
        DiscoverListed({name});
    }
    EXPECT_EQ(Found(), "net disk a.b lib mylib Lib");
    EXPECT_EQ(log.Entries(), Entries{});
}

TEST_F(DiscoveryTest, AcceptsAPluginWithAnEmptyName) {
    Install("barriers", "lib.so");
    Install("barriers", ".so");
    DiscoverListed({"lib.so", ".so"});
    ASSERT_EQ(list.size(), 2U);
    EXPECT_EQ(list[0]->Name(), "");
    EXPECT_EQ(list[1]->Name(), "");
}

TEST_F(DiscoveryTest, ReportsAFileThatIsNoPluginAndGoesOn) {
    folder.Write("plugins/bad.so", "text");
    fs::create_directory(plugins + "/folder.so");
    Install("barriers", "good.so");
    DiscoverListed({"bad.so", "folder.so", "missing.so", "good.so"});
    EXPECT_EQ(Found(), "good");
    ASSERT_EQ(log.Entries().size(), 3U);
    const Names files{"bad.so", "folder.so", "missing.so"};
    for (std::size_t index = 0; index < files.size(); ++index) {
        const test::LogCapture::Entry entry = log.Entries()[index];
        const std::string start = "exception occurred whilst loading plugin " + files[index] + ": plugin `" + plugins +
                                  "/" + files[index] + "' is invalid: ";
        EXPECT_EQ(entry.level, kWarning);
        EXPECT_TRUE(entry.text.starts_with(start)) << entry.text;
        EXPECT_GT(entry.text.size(), start.size());
    }
}

TEST_F(DiscoveryTest, TriesSharedObjectsBeforeItLoadsThem) {
    Install("exit_3_loading", "bad.so");
    Install("barriers", "good.so");
    DiscoverListed({"bad.so", "good.so"});
    EXPECT_EQ(Found(), "good");
    EXPECT_EQ(log.Entries(), (Entries{{kWarning, "exception occurred whilst loading plugin bad.so: plugin `" + plugins +
                                                     "/bad.so' is invalid: exited its loader with status 3"}}));
}

TEST_F(DiscoveryTest, ReportsAPluginThatTheSystemHasNoRoomFor) {
    Install("barriers", "net.so");
    {
        const test::FailingCall noCondition(test::Call::PthreadCondInit, 0);
        DiscoverListed({"net.so"});
    }
    EXPECT_EQ(Found(), "");
    EXPECT_EQ(log.Entries(), (Entries{{kWarning,
                                       "exception occurred whilst loading plugin net.so: "
                                       "Condition variable for Node could not be initialized"}}));
}

TEST_F(DiscoveryTest, ReportsADebugFileThatTheSystemHasNoRoomForAndGoesOn) {
    folder.Write("debug.conf", "d:::true\n");
    Install("barriers", "net.so");
    {
        const test::FailingCall noCondition(test::Call::PthreadCondInit, 0, 1);
        DiscoverListed({"d.debug", "net.so"});
    }
    EXPECT_EQ(Found(), "net");
    EXPECT_EQ(log.Entries(), (Entries{{kWarning,
                                       "exception occurred whilst loading plugin d.debug: "
                                       "Condition variable for Node could not be initialized"}}));
}

TEST_F(DiscoveryTest, ReportsWhateverIsThrownWhileAFileIsLoaded) {
    LoadContained("good.so", [] {});
    LoadContained("100%s.so", [] { throw std::runtime_error("50%n"); });
    LoadContained("100%s.so", [] { throw 7; });  // NOLINT: anything may be thrown
    EXPECT_EQ(log.Entries(), (Entries{{kWarning, "exception occurred whilst loading plugin 100%s.so: 50%n"},
                                      {kWarning, "unknown exception occurred whilst loading plugin 100%s.so"}}));
}

TEST_F(DiscoveryTest, NeverLeavesThePluginDirectoryForAListedPath) {
    Install("barriers", "net.so");
    DiscoverListed({plugins + "/net.so"});
    EXPECT_EQ(Found(), "");
    ASSERT_EQ(log.Lines().size(), 1U);
    EXPECT_TRUE(log.Lines()[0].starts_with("exception occurred whilst loading plugin " + plugins + "/net.so: plugin `" +
                                           plugins + plugins + "/net.so' is invalid: "))
        << log.Lines()[0];
}

TEST_F(DiscoveryTest, ThrowsForADirectoryThatCannotBeRead) {
    input.pluginDirectory = folder / "missing";
    EXPECT_THROW(DiscoverAll(), fs::filesystem_error);
    input.pluginDirectory = folder.Write("file", "");
    EXPECT_THROW(DiscoverAll(), fs::filesystem_error);
    input.pluginDirectory = "";
    EXPECT_THROW(DiscoverAll(), fs::filesystem_error);
    EXPECT_EQ(Found(), "");
}

// ---- Order and debug entries

TEST_F(DiscoveryTest, KeepsTheOrderOfTheDirectoryAndThenOfTheDebugEntries) {
    folder.Write("debug.conf", "z:::true\nc:::true\na:::true\n");
    std::string expected;
    for (int number = 0; number < 20; ++number) {
        Install("barriers", "p" + std::to_string(number) + ".so");
    }
    for (const std::string& file : EntriesOfDirectory()) {
        expected += fs::path(file).stem().string() + " ";
    }
    DiscoverAll();
    EXPECT_EQ(Found(), expected + "z c a");
}

TEST_F(DiscoveryTest, OfAListLoadsOnlyThatInItsOrder) {
    folder.Write("debug.conf", "d:::true\n");
    for (const std::string name : {"a.so", "b.so", "c.so"}) {
        Install("barriers", name);
    }
    DiscoverListed({"c.so", "a.so", "c.so"});
    EXPECT_EQ(Found(), "c a c");
}

TEST_F(DiscoveryTest, OfAListIgnoresANameWithoutAnExtension) {
    Install("barriers", "net.so");
    DiscoverListed({"net"});
    EXPECT_EQ(Found(), "");
    EXPECT_EQ(log.Entries(), (Entries{{kWarning, "ignoring plugin 'net' of unspecified type..."}}));
}

TEST_F(DiscoveryTest, CreatesEveryDebugEntryOfTheNameOfADebugFile) {
    folder.Write("debug.conf", "d:::one\nother:::two\nd:::three\n");
    Install("barriers", "net.so");
    DiscoverListed({"d.debug", "net.so", "libd.debug", "unknown.debug"});
    EXPECT_EQ(Found(), "d d net d d");
    EXPECT_EQ(log.Entries(), Entries{});
}

TEST_F(DiscoveryTest, CreatesTheEntriesOfADebugFileAtItsPlaceAndAllOfThemAtTheEnd) {
    folder.Write("debug.conf", "d:::one\nother:::two\n");
    folder.Write("plugins/d.debug", "");
    DiscoverAll();
    EXPECT_EQ(Found(), "d d other");
}

TEST_F(DiscoveryTest, NeverFiltersDebugPlugins) {
    folder.Write("debug.conf", "d:::true\n");
    folder.Write("plugins/d.debug", "");
    input.rules.disabledPlugins = {"d"};
    runOnce = {"d"};
    DiscoverAll();
    EXPECT_EQ(Found(), "d d");
    EXPECT_EQ(list[0]->State(), NodeState::Idle);
    EXPECT_EQ(log.Entries(), Entries{});
    EXPECT_EQ(runOnce, Flags{"d"});
}

TEST_F(DiscoveryTest, RepeatsComplaintsAboutTheDebugConfigurationForTheScanAndForEveryFile) {
    folder.Write("debug.conf", "bad\n");
    Install("barriers", "net.so");
    folder.Write("plugins/notes.txt", "");
    folder.Write("plugins/d.debug", "");
    folder.Write("plugins/README", "");  // its type is unspecified before the configuration is looked at
    DiscoverAll();
    EXPECT_EQ(log.Lines(kInfo), Names(4, "ignoring malformed debug entry at line 1: bad"));
    EXPECT_EQ(log.Lines(kWarning).size(), 2U);
    log.Clear();
    DiscoverListed({"net.so", "notes.txt"});
    EXPECT_EQ(log.Lines(),
              (Names{"ignoring malformed debug entry at line 1: bad", "ignoring malformed debug entry at line 1: bad",
                     "ignoring plugin 'notes.txt' of unknown type (txt)..."}));
}

TEST_F(DiscoveryTest, WorksWithoutADebugConfiguration) {
    fs::create_directory(configuration);
    Install("barriers", "net.so");
    folder.Write("plugins/d.debug", "");
    DiscoverAll();
    EXPECT_EQ(Found(), "net");
    EXPECT_EQ(log.Entries(), Entries{});
}

// ---- Disabled plugins

TEST_F(DiscoveryTest, DisablesByPluginNameNotByFileName) {
    Install("barriers", "libnet.so");
    Install("barriers", "disk.so");
    input.rules.disabledPlugins = {"net", "disk.so", "Disk"};
    DiscoverListed({"libnet.so", "disk.so"});
    EXPECT_EQ(Found(), "disk");
    EXPECT_EQ(log.Entries(), (Entries{{kInfo, "ignoring plugin 'net' due to blacklist."}}));
}

TEST_F(DiscoveryTest, LooksAtDisabledPluginsBeforeFlagsAndRunOnce) {
    Install("release3", "net.so");
    input.rules.disabledPlugins = {"net"};
    input.rules.bootFlags = {"x"};
    DiscoverAll();
    EXPECT_EQ(log.Entries(), (Entries{{kInfo, "ignoring plugin 'net' due to blacklist."}}));
    EXPECT_EQ(runOnce, Flags{});
}

TEST_F(DiscoveryTest, LetsARejectedPluginBlockNobodyWhoWaitsForItsBarriers) {
    folder.Write("debug.conf", "waiter:clock::true\n");
    Install("barriers", "disabled.so");
    Install("release3", "flagged.so");
    input.rules.disabledPlugins = {"disabled"};
    DiscoverAll();
    EXPECT_EQ(Found(), "waiter");
    const Node::Links providers = graph.GetBarrier("clock", false)->Dependencies();
    ASSERT_EQ(providers.size(), 2U);
    for (const Node* provider : providers) {
        EXPECT_EQ(provider->State(), NodeState::Started);
    }
    Executor executor(1, false);
    StartRun(graph, {list.begin(), list.end()}, executor);
    EXPECT_EQ(list[0]->State(), NodeState::Started);
}

TEST_F(DiscoveryTest, KeepsTheLinksOfAFileThatIsRejectedHalfWayAsThoseOfAStartedNode) {
    folder.Write("debug.conf", "before::in:true\nafter:out::true\n");
    folder.Write("plugins/broken.json",
                 R"({"metadata": {"version": 1, "requires": ["in"], "provides": ["out"]}, "operations": {}})");
    DiscoverAll();
    EXPECT_EQ(Found(), "before after");
    const Node::Links providers = graph.GetBarrier("out", false)->Dependencies();
    EXPECT_EQ(test::Names(providers), "broken");
    EXPECT_EQ(providers.at(0)->State(), NodeState::Started);
    EXPECT_EQ(test::Names(providers.at(0)->Dependencies()), "in");
    Executor executor(1, false);
    StartRun(graph, {list.begin(), list.end()}, executor);
    EXPECT_EQ(list[1]->State(), NodeState::Started);
    EXPECT_EQ(log.Lines(kWarning).size(), 1U);  // no complaint about a barrier that nobody provides
}

// More than it takes to discover a file or two.
constexpr int kManyAllocations = 1000;

// From the last allocation back to the first one for the links: what reads JSON needs memory even to let go of what it
// has read.
TEST_F(DiscoveryTest, SaysWhyAFileIsRejectedEvenWhenMemoryRunsOutForItsLinks) {
    folder.Write("plugins/broken.json",
                 R"({"metadata": {"version": 1, "requires": ["in"], "provides": ["out"]}, "operations": {}})");
    DiscoverListed({"broken.json"});
    const Entries reason = log.Entries();
    ASSERT_EQ(reason.size(), 1U);

    int shortages = 0;
    bool isLinked = true;
    for (int allocations = kManyAllocations; isLinked; --allocations) {
        log.Clear();
        Graph ownGraph(settings);
        Discovery discovery(input, ownGraph, test::NoActivator::Instance(), runOnce, list);
        {
            const test::FailingCall failing(test::Call::OperatorNew, allocations, 1);
            discovery.DiscoverListed({"broken.json"});
            ASSERT_TRUE(allocations < kManyAllocations || !failing.Happened());
        }
        isLinked = ownGraph.Size() > 0;
        const bool isShort = ownGraph.Size() < graph.Size();
        ASSERT_TRUE(isShort || isLinked);
        if (isShort || !log.Entries().empty()) {  // the test's record of the line may be what there is no memory for
            ASSERT_EQ(log.Entries(), reason) << allocations;
        }
        shortages += isShort ? 1 : 0;
    }
    EXPECT_GT(shortages, 3);
}

class DiscoveryShortOfMemory : public DiscoveryTest {
  protected:
    DiscoveryShortOfMemory() {
        folder.Write("debug.conf", "step:network,disk:clock,names:true\n");
        input.rules.bootFlags = {"a", "b"};
        earlier->MarkStarted();
    }

    // Discovers the files when one allocation fails, and runs what was found. That comes behind `length` plugins of the
    // list, which needs more memory now and then. Returns whether it came to the failure.
    bool Discover(const Names& files, std::size_t length, int allocations) {
        log.Clear();
        Graph ownGraph(settings);
        std::set<std::string> ownRunOnce;
        PluginList ownList(length, earlier.get());
        bool isShort = true;
        try {
            Discovery discovery(input, ownGraph, test::NoActivator::Instance(), ownRunOnce, ownList);
            const test::FailingCall failing(test::Call::OperatorNew, allocations, 1);
            discovery.DiscoverListed(files);
            isShort = failing.Happened();
        } catch (const std::bad_alloc&) {
            isShort = true;  // nothing more is discovered
        }
        const std::vector<Node*> listed(ownList.begin(), ownList.end());
        EXPECT_EQ(test::Forgotten(ownGraph, listed), "") << length << ", " << allocations;
        EXPECT_TRUE(isShort || listed.size() == length + files.size());
        Executor executor(1, false);
        StartRun(ownGraph, listed, executor);
        nodes = ownGraph.Size();
        return isShort;
    }

    static constexpr std::size_t kBlock = 512 / sizeof(Plugin*);  // of a deque

    const std::unique_ptr<DebugPlugin> earlier =
        test::MakePlugin<DebugPlugin>(PluginDescription(PluginKind::Debug, "earlier"));
    std::size_t nodes = 0;  // of the last graph
};

TEST_F(DiscoveryShortOfMemory, ForgetsNoPluginThatIsLinked) {
    Install("barriers", "net.so");
    Install("release3", "once.so");
    for (const std::size_t length : {kBlock - 3, kBlock - 2, kBlock - 1}) {
        for (int allocations = 0; Discover({"net.so", "once.so", "step.debug"}, length, allocations); ++allocations) {
            ASSERT_FALSE(HasFailure());
        }
    }
}

TEST_F(DiscoveryShortOfMemory, ForgetsNoPluginOfAJSONFileThatIsLinked) {
    folder.Write("plugins/net.json",
                 R"({"metadata": {"version": 3, "requires": ["network", "disk"], "provides": ["clock", "names"],)"
                 R"( "required_flags": ["a", "b"], "run_once": true, "plugin_version": "1"},)"
                 R"( "operations": {"start": []}})");
    int allocations = kManyAllocations;
    ASSERT_FALSE(Discover({"net.json"}, kBlock - 1, allocations));
    while (nodes > 0) {
        Discover({"net.json"}, kBlock - 1, --allocations);
        ASSERT_FALSE(HasFailure());
    }
}

TEST_F(DiscoveryTest, LinksAPluginInTheOrderOfItsDescription) {
    folder.Write("debug.conf", "step:b,a:d,c:true\n");
    DiscoverAll();
    EXPECT_EQ(test::Names(list.at(0)->Dependencies()), "b a");
    EXPECT_EQ(test::Names(list.at(0)->Dependents()), "d c");
    EXPECT_EQ(test::Names(graph.GetBarrier("b", false)->Dependents()), "step");
}

TEST_F(DiscoveryTest, LogsTheLinesOfTheDebugConfigurationThatItSkips) {
    folder.Write("debug.conf", "a:b:c\nb:::echo \\x\n%n\n");
    DiscoverAll();
    EXPECT_EQ(log.Entries(),
              (Entries{{kInfo, "ignoring malformed debug entry at line 1: a:b:c"},
                       {kWarning, "skipping debug entry at line 2: b:::echo \\x (unknown escape sequence)"},
                       {kInfo, "ignoring malformed debug entry at line 3: %n"}}));
}

// ---- Boot flags

class BootFlags : public DiscoveryTest {
  protected:
    Entries LoadWith(const Flags& flags) {
        input.rules.bootFlags = flags;
        list.clear();
        log.Clear();
        DiscoverListed({"p.so"});
        return log.Entries();
    }

    void SetUp() override { Install("release3", "p.so"); }
};

TEST_F(BootFlags, AdmitAPluginWhoseRequiredFlagsAreAllThere) {
    EXPECT_EQ(LoadWith({"a", "b", "other"}), Entries{});
    EXPECT_EQ(Found(), "p");
}

TEST_F(BootFlags, RejectAPluginThatOneOfThemDisables) {
    EXPECT_EQ(LoadWith({"a", "b", "x", "z"}),
              (Entries{{kWarning, "ignoring plugin 'p', disabled due to boot flags: x ."}}));
    EXPECT_EQ(LoadWith({"a", "b", "x", "y"}),
              (Entries{{kWarning, "ignoring plugin 'p', disabled due to boot flags: x y ."}}));
    EXPECT_EQ(Found(), "");
    EXPECT_EQ(runOnce, Flags{});
}

TEST_F(BootFlags, RejectAPluginThatMissesARequiredOne) {
    EXPECT_EQ(LoadWith({"a"}),
              (Entries{{kWarning, "ignoring plugin 'p', disabled due to missing required boot flags: b ."}}));
    EXPECT_EQ(LoadWith({}),
              (Entries{{kWarning, "ignoring plugin 'p', disabled due to missing required boot flags: a b ."}}));
    EXPECT_EQ(Found(), "");
}

TEST_F(BootFlags, RejectAPluginForBothReasonsWithBothLines) {
    EXPECT_EQ(LoadWith({"b", "y"}),
              (Entries{{kWarning, "ignoring plugin 'p', disabled due to boot flags: y ."},
                       {kWarning, "ignoring plugin 'p', disabled due to missing required boot flags: a ."}}));
    EXPECT_EQ(Found(), "");
    EXPECT_EQ(graph.GetBarrier("clock", false)->Dependencies().at(0)->State(), NodeState::Started);
}

TEST_F(BootFlags, AdmitAPluginThatKnowsNone) {
    fs::remove(plugins + "/p.so");
    Install("barriers", "p.so");
    EXPECT_EQ(LoadWith({"x", "y"}), Entries{});
    EXPECT_EQ(Found(), "p");
}

// ---- Run-once plugins

class RunOnceRule : public DiscoveryTest {
  protected:
    RunOnceRule() { input.rules.bootFlags = {"a", "b"}; }
};

TEST_F(RunOnceRule, AddsTheKeyOfAPluginThatHasNotRun) {
    Install("release3", "net.so");
    Install("barriers", "always.so");
    DiscoverListed({"net.so", "always.so"});
    EXPECT_EQ(runOnce, Flags{"net1.2-rc"});
    EXPECT_EQ(list.at(0)->State(), NodeState::Idle);
    EXPECT_EQ(log.Entries(), Entries{});
}

TEST_F(RunOnceRule, KeepsAPluginThatHasRunInTheListAsStarted) {
    Install("release3", "net.so");
    runOnce = {"net1.2-rc"};
    DiscoverAll();
    EXPECT_EQ(Found(), "net");
    EXPECT_EQ(list.at(0)->State(), NodeState::Started);
    EXPECT_EQ(log.Entries(),
              (Entries{{kInfo, "ignoring plugin 'net' because version '1.2-rc'  has already been run."}}));
    EXPECT_EQ(runOnce, Flags{"net1.2-rc"});
}

TEST_F(RunOnceRule, NeverRecognisesAPluginWhoseKeyHasCharactersThatARecordDrops) {
    Install("release3", "n e,t:\xc3\xa4_+.so");
    DiscoverAll();
    EXPECT_EQ(runOnce, Flags{"net_+1.2-rc"});
    DiscoverAll();
    EXPECT_EQ(list.at(1)->State(), NodeState::Idle);
    EXPECT_EQ(runOnce, Flags{"net_+1.2-rc"});
    EXPECT_EQ(log.Entries(), Entries{});
}

TEST_F(RunOnceRule, LooksAPluginUpByItsKeyAsItIs) {
    Install("release3", "n t.so");
    runOnce = {"n t1.2-rc"};
    DiscoverAll();
    EXPECT_EQ(list.at(0)->State(), NodeState::Started);
}

TEST_F(RunOnceRule, LetsTheSecondOfTwoPluginsOfOneKeyNotRun) {
    Install("release3", "net.so");
    Install("release3", "libnet.so");
    DiscoverListed({"net.so", "libnet.so"});
    EXPECT_EQ(Found(), "net net");
    EXPECT_EQ(list.at(0)->State(), NodeState::Idle);
    EXPECT_EQ(list.at(1)->State(), NodeState::Started);
}

// ---- JSON plugins

class JSONFiles : public DiscoveryTest {
  protected:
    void WritePlugin(const std::string& fileName, const std::string& release) const {
        folder.Write("plugins/" + fileName,
                     R"({"metadata": {"version": 3, "requires": [], "provides": ["link"], "run_once": true,)"
                     R"( "plugin_version": ")" +
                         release + R"("}, "operations": {"start": []}})");
    }
};

TEST_F(JSONFiles, AreNamedLikeEveryOtherPlugin) {
    for (const std::string name : {"a.b.json", "libnet.json", "net.json", "lib.json"}) {
        WritePlugin(name, "");
    }
    DiscoverListed({"a.b.json", "libnet.json", "lib.json"});
    EXPECT_EQ(Found(), "a.b net ");
    EXPECT_EQ(runOnce, (Flags{"", "a.b", "net"}));
}

TEST_F(JSONFiles, AreRecordedWithTheirVersionBehindTheirName) {
    WritePlugin("net.json", "1.0");
    DiscoverAll();
    EXPECT_EQ(runOnce, Flags{"net1.0"});
    DiscoverAll();
    EXPECT_EQ(list.at(1)->State(), NodeState::Started);
    EXPECT_EQ(log.Entries(), (Entries{{kInfo, "ignoring plugin 'net' because version '1.0'  has already been run."}}));
}

TEST_F(JSONFiles, AreRecordedByLettersDigitsAndFourSignsOnly) {
    std::string release;
    for (char sign = ' '; sign <= '~'; ++sign) {
        release += sign == '"' || sign == '\\' ? std::string{'\\', sign} : std::string{sign};
    }
    WritePlugin("net.json", release + "\xc3\xa4");
    DiscoverAll();
    EXPECT_EQ(runOnce, Flags{"net+-.0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ_abcdefghijklmnopqrstuvwxyz"});
}

TEST_F(JSONFiles, AreNeverRecognisedWhenTheirVersionHasABlank) {
    WritePlugin("net.json", "1.0 beta");
    DiscoverAll();
    DiscoverAll();
    EXPECT_EQ(runOnce, Flags{"net1.0beta"});
    EXPECT_EQ(list.at(1)->State(), NodeState::Idle);
    EXPECT_EQ(log.Entries(), Entries{});
}

}  // namespace
}  // namespace lofter
