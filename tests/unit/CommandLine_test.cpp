#include "CommandLine.h"

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <initializer_list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/Logging.h"
#include "support/LogCapture.h"

namespace lofter {
namespace {

using Texts = std::vector<std::string>;
using Flags = std::set<std::string>;
using Entries = std::vector<test::LogCapture::Entry>;

constexpr char kUsage[] =
    R"( -h,--help                  display this help message
    --init                  run in init mode (this will cause tssyslog to be
                            launched, and the start method to be invoked on the
                            plugins)
    --invoke                run a particular method from the plugin's function
                            pointer table (requires --method)
    --method=<method>       specifies the method identifier
    --plugin=<plugin>[,<plugin>]
                            comma separated list of plugins to load (note that@
                            this will prevent the loading of all plugins, and@
                            only the specified plugins will be loaded), which
                            are specified by the filename (basename of the
                            plugin path)
    --trace                 trace execution of the plugins for debugging@
                            purposes
    --verbose               logs plugin execution to syslog to aid in debugging
    --randomize[=seed]      evaluate the execution order randomizing the
                            order of independent jobs. Only useful for testing.
                            You can specify an optional seed for reproducibility
    --parallel              evaluate the execution order accounting for
                            parallelism between jobs which are independent
    --plugin-flags=<flag>[,<flag>]
                            specify flags for conditional execution of plugins.
                            If there are multiple occurences of this option, the
                            last one is the only one that counts. See plugin
                            documentation for which plugins support flags.
    --interactive           prompts before performing the action, allowing
                            plugins to be skipped, executed, or to fall to a
                            troubleshooting shell
    --disable-plugins=<plugin>[,<plugin>]
                            a comma separated list of plugins to be disabled
                            during execution, which are specified by the
                            filename (basename of the plugin path)
    --dump-dependency-tree[=<path>]
                            dump plugin dependency tree information to the file
                            specified by path.  If path is not specified, the
                            information will be dumped to the console
    --interactive-mode-requires=<plugin>[,<plugin>]
                            interactive mode requires the specified plugins to
                            be loaded before it can be activated
    --daemon=[wait|nowait]
                            run daemon operations (requires --method). The
                            optional wait mode specifies whether lofter
                            should wait for daemon start/stop to complete.
                            Defaults to 'nowait' if unspecified.
    --daemon-wait-timeout=timeoutInSecs
                            specify how long lofter should wait for daemons
                            to start/stop, before moving on to the next one.
                            The default is 40 secs.
)";

// Some lines end in a blank, which an "@" shows above.
std::string UsageText() {
    std::string text = kUsage;
    std::replace(text.begin(), text.end(), '@', ' ');
    return text;
}

class CommandLineTest : public testing::Test {
  protected:
    // What a process that was given these arguments would make of them.
    void Parse(std::initializer_list<std::string> arguments) {
        settings = defaults;
        log.Clear();
        Texts words(arguments);
        words.insert(words.begin(), "/usr/sbin/lofter");
        std::vector<char*> vector;
        for (std::string& word : words) {
            vector.push_back(word.data());
        }
        vector.push_back(nullptr);

        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const CommandLine result = ParseCommandLine(static_cast<int>(words.size()), vector.data(), settings);
        std::fflush(stdout);
        output = testing::internal::GetCapturedStdout();
        complaint = testing::internal::GetCapturedStderr();
        options = result.options;
        exitStatus = result.exitStatus;
    }

    bool IsAccepted() const {
        return !exitStatus.has_value() && output.empty() && complaint.empty() && log.Lines().empty();
    }

    const Settings defaults;
    Settings settings = defaults;
    test::LogCapture log;
    RunOptions options;
    std::optional<int> exitStatus;
    std::string output;
    std::string complaint;
};

TEST_F(CommandLineTest, WithoutOptionsEverythingKeepsItsDefault) {
    Parse({});
    EXPECT_TRUE(IsAccepted());
    EXPECT_FALSE(options.init || options.daemon || options.dump);
    EXPECT_FALSE(options.dumpPath.has_value());
    EXPECT_TRUE(options.plugins.empty() && options.pluginFlags.empty() && options.runOnce.empty());
    EXPECT_EQ(options.pluginDirectory, "/usr/libexec/lofter/plugins");
    EXPECT_EQ(settings.daemonWaitTimeout, 40U);
    EXPECT_EQ(settings.method, "");
}

TEST_F(CommandLineTest, EveryPlainOptionSwitchesItsOwnFlag) {
    Parse({"--init", "--trace", "--verbose"});
    EXPECT_TRUE(IsAccepted());
    EXPECT_TRUE(options.init);
    EXPECT_TRUE(settings.trace);
    EXPECT_TRUE(settings.verbose);
    EXPECT_FALSE(settings.parallel || settings.interactive || settings.randomize || settings.invoke);
}

TEST_F(CommandLineTest, HelpPrintsTheUsageTextAndEndsWithSuccessAtOnce) {
    for (const char* help : {"-h", "--help"}) {
        Parse({help, "--no-such-option", "--trace"});
        EXPECT_EQ(output, UsageText());
        EXPECT_EQ(complaint, "");
        EXPECT_EQ(exitStatus, 0);
        EXPECT_FALSE(settings.trace);
    }
}

TEST_F(CommandLineTest, AnUnknownOptionEndsWithTheUsageLineOnStandardError) {
    Parse({"--no-such-option", "-h"});
    EXPECT_TRUE(complaint.ends_with("usage: /usr/sbin/lofter --help for usage information\n")) << complaint;
    EXPECT_EQ(output, "") << "help after an invalid option";
    EXPECT_EQ(exitStatus, 1);
}

TEST_F(CommandLineTest, AMissingArgumentEndsWithTheUsageLineOnStandardError) {
    for (const char* option : {"--plugin-flags", "--method", "--plugin", "--run-once", "--disable-plugins",
                               "--plugin-directory", "--interactive-mode-requires", "--daemon-wait-timeout"}) {
        Parse({"--trace", option});
        EXPECT_TRUE(complaint.ends_with("usage: /usr/sbin/lofter --help for usage information\n")) << option;
        EXPECT_EQ(exitStatus, 1) << option;
        EXPECT_TRUE(settings.trace) << "an option takes effect as soon as it is read";
    }
}

TEST_F(CommandLineTest, AnArgumentForAnOptionThatTakesNoneIsRefused) {
    Parse({"--init=yes"});
    EXPECT_EQ(exitStatus, 1);
}

TEST_F(CommandLineTest, TheLastOccurrenceOfPluginFlagsCounts) {
    Parse({"--plugin-flags=a,b", "--plugin-flags=c"});
    EXPECT_EQ(options.pluginFlags, Flags{"c"});
}

TEST_F(CommandLineTest, RunOnceNamesAccumulate) {
    Parse({"--run-once=a", "--run-once=b"});
    EXPECT_EQ(options.runOnce, (Flags{"a", "b"}));
}

TEST_F(CommandLineTest, ListsAccumulateInOrderAndKeepDuplicates) {
    Parse({"--plugin=b.so,a.so", "--plugin", "b.so", "--disable-plugins=y,x", "--disable-plugins=y",
           "--interactive-mode-requires=q,p", "--interactive-mode-requires=q"});
    EXPECT_EQ(options.plugins, (Texts{"b.so", "a.so", "b.so"}));
    EXPECT_EQ(settings.disabledPlugins, (Texts{"y", "x", "y"}));
    EXPECT_EQ(settings.interactiveModeRequirements, (Texts{"q", "p", "q"}));
}

TEST_F(CommandLineTest, ListsDropEmptyTokensAndKeepBlanks) {
    Parse({"--plugin=a,,b", "--disable-plugins=, c,d ,", "--plugin-flags=,,", "--run-once="});
    EXPECT_EQ(options.plugins, (Texts{"a", "b"}));
    EXPECT_EQ(settings.disabledPlugins, (Texts{" c", "d "}));
    EXPECT_TRUE(options.pluginFlags.empty());
    EXPECT_TRUE(options.runOnce.empty());
}

TEST_F(CommandLineTest, ParallelThenInteractiveRunsInteractivelyAndSerially) {
    Parse({"--parallel", "--interactive"});
    EXPECT_TRUE(settings.interactive);
    EXPECT_FALSE(settings.parallel);
}

TEST_F(CommandLineTest, InteractiveThenParallelRunsInParallelWithoutPrompts) {
    Parse({"--interactive", "--parallel"});
    EXPECT_TRUE(settings.parallel);
    EXPECT_FALSE(settings.interactive);
}

TEST_F(CommandLineTest, TheSeedDefaultsToTheTimeWhenTheRecordWasCreated) {
    EXPECT_GT(settings.randomSeed, 0);
    EXPECT_LE(settings.randomSeed, static_cast<std::int64_t>(std::time(nullptr)));
}

TEST_F(CommandLineTest, ASeedIsADecimalNumberThatFits32Bits) {
    const std::vector<std::pair<std::string, std::int64_t>> seeds{
        {"7", 7}, {"+7", 7}, {"-7", -7}, {"-2147483648", -2147483648LL}, {"2147483647", 2147483647}, {"007", 7}};
    for (const auto& [text, seed] : seeds) {
        Parse({"--randomize=" + text});
        EXPECT_TRUE(IsAccepted());
        EXPECT_TRUE(settings.randomize);
        EXPECT_EQ(settings.randomSeed, seed) << text;
    }
}

TEST_F(CommandLineTest, ASeedThatIsNoSuchNumberIsIgnoredWithoutAMessage) {
    for (const std::string text :
         {"abc", "", "2147483648", "-2147483649", "7x", " 7", "7 ", "0x7", "1.0", "+", "--7"}) {
        Parse({"--randomize=" + text});
        EXPECT_TRUE(IsAccepted()) << text;
        EXPECT_TRUE(settings.randomize) << text;
        EXPECT_EQ(settings.randomSeed, defaults.randomSeed) << text;
    }
}

TEST_F(CommandLineTest, TheDaemonTimeoutIsADecimalUnsigned32BitNumber) {
    const std::vector<std::pair<std::string, std::uint32_t>> timeouts{
        {"0", 0}, {"5", 5}, {"+5", 5}, {"4294967295", 4294967295U}, {"-1", 4294967295U}, {"-2", 4294967294U}};
    for (const auto& [text, timeout] : timeouts) {
        Parse({"--daemon-wait-timeout=" + text});
        EXPECT_TRUE(IsAccepted());
        EXPECT_EQ(settings.daemonWaitTimeout, timeout) << text;
    }
}

TEST_F(CommandLineTest, ADaemonTimeoutThatIsNoSuchNumberKeepsTheFormerOne) {
    for (const std::string text : {"x", "", "4294967296", "5s", " 5", "1.5", "-"}) {
        Parse({"--daemon-wait-timeout=" + text});
        EXPECT_TRUE(IsAccepted()) << text;
        EXPECT_EQ(settings.daemonWaitTimeout, 40U) << text;
    }
    Parse({"--daemon-wait-timeout=5", "--daemon-wait-timeout=x"});
    EXPECT_EQ(settings.daemonWaitTimeout, 5U);
}

TEST_F(CommandLineTest, OnlyTheArgumentWaitMakesADaemonRunWait) {
    Parse({"--daemon", "--method=start"});
    EXPECT_TRUE(IsAccepted());
    EXPECT_TRUE(options.daemon);
    EXPECT_FALSE(settings.daemonWait);
    Parse({"--daemon=wait", "--method=stop"});
    EXPECT_TRUE(IsAccepted());
    EXPECT_TRUE(settings.daemonWait);
    for (const std::string other : {"nowait", "Wait", "waiting", ""}) {
        Parse({"--daemon=wait", "--daemon=" + other, "--method=start"});
        EXPECT_FALSE(settings.daemonWait) << other;
    }
    Parse({"--daemon=wait", "--daemon", "--method=start"});
    EXPECT_TRUE(settings.daemonWait) << "without an argument the former choice stands";
}

TEST_F(CommandLineTest, AnOptionalArgumentIsNeverTheNextWord) {
    Parse({"--randomize", "7", "--dump-dependency-tree", "/tmp/x"});
    EXPECT_EQ(settings.randomSeed, defaults.randomSeed);
    EXPECT_TRUE(options.dump);
    EXPECT_FALSE(options.dumpPath.has_value());
}

TEST_F(CommandLineTest, TheLastDumpPathCountsAndAnEmptyOneIsAPath) {
    Parse({"--dump-dependency-tree=/a", "--dump-dependency-tree=/b", "--dump-dependency-tree"});
    EXPECT_EQ(options.dumpPath, "/b");
    Parse({"--dump-dependency-tree="});
    EXPECT_EQ(options.dumpPath, "");
}

TEST_F(CommandLineTest, TheLastMethodAndPluginDirectoryCount) {
    Parse({"--method=start", "--method=other", "--plugin-directory=a", "--plugin-directory", "b"});
    EXPECT_EQ(settings.method, "other");
    EXPECT_EQ(options.pluginDirectory, "b");
}

TEST_F(CommandLineTest, ADaemonRunRefusesWhatMakesNoSenseWithIt) {
    const std::vector<Texts> extras{{"--method=restart"},
                                    {},
                                    {"--method="},
                                    {"--method=start", "--plugin=a.so"},
                                    {"--method=start", "--init"},
                                    {"--method=start", "--interactive"},
                                    {"--method=start", "--invoke"}};
    for (const Texts& extra : extras) {
        const std::string first = extra.empty() ? "--trace" : extra.front();
        const std::string last = extra.empty() ? "--trace" : extra.back();
        Parse({"--daemon", first, last});
        EXPECT_EQ(exitStatus, 1) << last;
        EXPECT_EQ(log.Entries(), (Entries{{kError, "Invalid combination of options passed. Exiting"}})) << last;
        EXPECT_EQ(output, "") << last;
    }
}

TEST_F(CommandLineTest, InvokeWithoutAPluginOrMethodShowsTheUsageText) {
    for (const std::string other : {"--method=start", "--plugin=a.so", "--plugin=,"}) {
        Parse({"--invoke", other});
        EXPECT_EQ(exitStatus, 1) << other;
        EXPECT_EQ(log.Entries(), (Entries{{kError, "invoke requires a method and plugin specified"}})) << other;
        EXPECT_EQ(output, UsageText()) << other;
    }
}

TEST_F(CommandLineTest, OtherCombinationsAreAccepted) {
    Parse({"--init", "--invoke", "--method=stop", "--plugin=a.so"});
    EXPECT_TRUE(IsAccepted());
    EXPECT_TRUE(options.init && settings.invoke);
    Parse({"--method=start"});
    EXPECT_TRUE(IsAccepted());
    Parse({"--daemon", "--method=stop", "--dump-dependency-tree=/x"});
    EXPECT_TRUE(IsAccepted());
}

TEST_F(CommandLineTest, WordsThatAreNoOptionsAreIgnored) {
    Parse({"word", "--trace", "--", "--init"});
    EXPECT_TRUE(IsAccepted());
    EXPECT_TRUE(settings.trace);
    EXPECT_FALSE(options.init);
}

}  // namespace
}  // namespace lofter
