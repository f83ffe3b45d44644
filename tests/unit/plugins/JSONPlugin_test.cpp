#include "plugins/JSONPlugin.h"

#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "base/Exception.h"
#include "base/Logging.h"
#include "plugins/description/JsonDescription.h"
#include "support/FailureOf.h"
#include "support/LogCapture.h"
#include "support/Plugins.h"
#include "support/TemporaryDirectory.h"

namespace lofter {
namespace {

using Words = std::vector<std::string>;
using Flags = std::set<std::string>;
using test::LogCapture;

// The document with these members, without the outer braces of either part.
std::string Document(const std::string& metadata, const std::string& operations = R"("start": [])") {
    return R"({"metadata": {)" + metadata + R"(}, "operations": {)" + operations + "}}";
}

std::string WithVersion(const std::string& version, const std::string& more = "",
                        const std::string& operations = R"("start": [])") {
    return Document(R"("version": )" + version + R"(, "requires": [], "provides": [])" + more, operations);
}

class JsonPlugin : public testing::Test {
  protected:
    std::unique_ptr<JSONPlugin> Load(const std::string& text) {
        return test::MakePlugin<JSONPlugin>(DescribeJsonPlugin("net", directory.Write("net.json", text)));
    }
    PluginDescription Describe(const std::string& text) {
        return DescribeJsonPlugin("net", directory.Write("net.json", text));
    }
    // Why the file is not a plugin.
    std::string ReasonOf(const std::string& text) {
        directory.Write("net.json", text);
        return ReasonOfFile("net.json");
    }
    std::string ReasonOfFile(const std::string& name) {
        const std::string path = directory / name;
        const std::string head = "plugin `" + path + "' is invalid: ";
        try {
            test::MakePlugin<JSONPlugin>(DescribeJsonPlugin("net", path));
        } catch (const InvalidPluginException& e) {
            const std::string message = e.what();
            EXPECT_EQ(message.substr(0, head.size()), head);
            return message.substr(head.size());
        }
        return "loaded";
    }

    test::TemporaryDirectory directory;
};

TEST_F(JsonPlugin, HoldsTheCommandsOfItsFileInOrder) {
    const auto plugin = Load(WithVersion("2", "", R"("start": ["c", "a", "a"], "apply_host_profile": ["z", "y"])"));
    EXPECT_EQ(plugin->Description().startCommands, Words({"c", "a", "a"}));
    EXPECT_EQ(plugin->Description().hostProfileCommands, Words({"z", "y"}));
    EXPECT_EQ(plugin->GetVersion(), 2);
    EXPECT_EQ(plugin->Name(), "net");
}

TEST_F(JsonPlugin, NamesItsBarriersInArrayOrderTheRequiredOnesFirst) {
    const PluginDescription plugin =
        Describe(Document(R"("provides": ["p2", "p1"], "requires": ["r2", "r1"], "version": 1)"));
    using enum BarrierLink::Direction;
    EXPECT_EQ(plugin.links,
              (std::vector<BarrierLink>{{Requires, "r2"}, {Requires, "r1"}, {Provides, "p2"}, {Provides, "p1"}}));
}

TEST_F(JsonPlugin, KeepsTheDefaultsForWhatItsFileOmits) {
    const auto plugin = Load(WithVersion("1"));
    EXPECT_FALSE(plugin->RunOnce());
    EXPECT_EQ(plugin->PluginVersion(), "");
    EXPECT_EQ(plugin->RequiredFlags(), Flags());
    EXPECT_EQ(plugin->DisablingFlags(), Flags());
    EXPECT_FALSE(plugin->HasApplyHostProfile());
    EXPECT_EQ(plugin->Description().startCommands, Words());
}

TEST_F(JsonPlugin, OfVersion3ReadsFlagsAndRunOnceData) {
    const auto plugin = Load(WithVersion(
        "3",
        R"(, "required_flags": ["b", "a", "b"], "disabling_flags": ["x"], "run_once": true, "plugin_version": "1.0")"));
    EXPECT_EQ(plugin->RequiredFlags(), Flags({"a", "b"}));
    EXPECT_EQ(plugin->DisablingFlags(), Flags({"x"}));
    EXPECT_TRUE(plugin->RunOnce());
    EXPECT_EQ(plugin->PluginVersion(), "1.0");
}

TEST_F(JsonPlugin, OfVersion4MayDoWithoutFlags) {
    const auto plugin = Load(WithVersion("4", R"(, "run_once": false, "plugin_version": "")"));
    EXPECT_EQ(plugin->GetVersion(), 4);
    EXPECT_FALSE(plugin->RunOnce());
    EXPECT_EQ(plugin->RequiredFlags(), Flags());
}

TEST_F(JsonPlugin, OfVersion2DoesNotLookAtFlagsAndRunOnceData) {
    const auto plugin = Load(
        WithVersion("2", R"(, "run_once": true, "plugin_version": 7, "required_flags": 1, "disabling_flags": {})"));
    EXPECT_FALSE(plugin->RunOnce());
    EXPECT_EQ(plugin->PluginVersion(), "");
    EXPECT_EQ(plugin->RequiredFlags(), Flags());
}

TEST_F(JsonPlugin, OfVersion3WithoutRunOnceIsRejected) {
    EXPECT_EQ(ReasonOf(WithVersion("3", R"(, "plugin_version": "1")")),
              "metadata is corrupt (unable to parse run_once)");
}

TEST_F(JsonPlugin, OfVersion1IgnoresItsHostProfileCommands) {
    const auto plugin = Load(WithVersion("1", "", R"("start": [], "apply_host_profile": ["a"])"));
    EXPECT_FALSE(plugin->HasApplyHostProfile());
    EXPECT_EQ(plugin->Description().hostProfileCommands, Words());
    EXPECT_EQ(test::FailureOf<NotImplementedException>([&] { plugin->ApplyHostProfile(); }),
              "method `json_plugin::ApplyHostProfile' is not implemented");
}

TEST_F(JsonPlugin, OfVersion1DoesNotLookAtTheHostProfileKey) {
    EXPECT_NO_THROW(Load(WithVersion("1", "", R"("start": [], "apply_host_profile": 7)")));
}

TEST_F(JsonPlugin, TakesPartInHostProfilesWhenItHasCommandsForThem) {
    EXPECT_TRUE(Load(WithVersion("2", "", R"("start": [], "apply_host_profile": ["a"])"))->HasApplyHostProfile());
    const auto empty = Load(WithVersion("2", "", R"("start": [], "apply_host_profile": [])"));
    EXPECT_FALSE(empty->HasApplyHostProfile());
    EXPECT_NO_THROW(empty->ApplyHostProfile());
}

TEST_F(JsonPlugin, WithoutCommandsStartsWithoutAnExecutor) {
    EXPECT_NO_THROW(Load(WithVersion("1"))->StartPlugin());
}

TEST_F(JsonPlugin, TruncatesItsVersionTowardZero) {
    const auto plugin =
        Load(WithVersion("2.7", R"(, "run_once": true)", R"("start": [], "apply_host_profile": ["a"])"));
    EXPECT_EQ(plugin->GetVersion(), 2);
    EXPECT_TRUE(plugin->HasApplyHostProfile());
    EXPECT_FALSE(plugin->RunOnce());
    EXPECT_EQ(Load(WithVersion("1.999"))->GetVersion(), 1);
    EXPECT_EQ(Load(WithVersion("10e-1"))->GetVersion(), 1);
}

TEST_F(JsonPlugin, RejectsVersionsThatItDoesNotKnow) {
    for (const std::string version :
         {"0", "0.5", "-0.0", "-1", "5", "4294967297", "18446744073709551617", "1e300", "-1e300", "1e-400"}) {
        EXPECT_EQ(ReasonOf(WithVersion(version)), "Unsupported API version") << version;
    }
}

TEST_F(JsonPlugin, RejectsAVersionThatIsNoNumber) {
    for (const std::string version : {"\"3\"", "null", "true", "[1]", "{}"}) {
        EXPECT_EQ(ReasonOf(WithVersion(version)), "metadata is corrupt (unable to parse version)") << version;
    }
    EXPECT_EQ(ReasonOf(Document(R"("requires": [], "provides": [])")), "metadata is corrupt (unable to parse version)");
}

TEST_F(JsonPlugin, RejectsAFileThatIsMissing) {
    EXPECT_EQ(ReasonOfFile("gone.json"), "no such file or directory");
}

TEST_F(JsonPlugin, RejectsARootThatIsNoObject) {
    for (const std::string text : {"[]", "7", "null", "\"text\"", "", " ", "// nothing"}) {
        EXPECT_EQ(ReasonOf(text), "plugin root is not an object") << text;
    }
}

TEST_F(JsonPlugin, RejectsWhatIsNotValidJson) {
    const std::string good = WithVersion("1");
    const auto withMember = [&](const std::string& member) {
        return "{" + member + ", " + good.substr(1);
    };
    for (const std::string& text :
         {good.substr(0, good.size() - 1), good + "x", good + "{}", "\xEF\xBB\xBF" + good, good + std::string(1, '\0'),
          good + std::string(1, '\0') + "x", withMember("\"x\": \"\xff\""), withMember("\"x\": \"\xed\xa0\x80\""),
          withMember("\"x\": \"\\ud800\""), withMember("\"x\": 01"), withMember("\"x\": NaN"), withMember("'x': 1"),
          withMember("\"x\": 1,"), withMember("\"x\": \"\t\""), good + "/* open", good + "/"}) {
        EXPECT_EQ(ReasonOf(text), "plugin root is not an object") << text;
    }
}

TEST_F(JsonPlugin, RejectsObjectsThatHaveTheSameKeyTwice) {
    const std::string good = WithVersion("1");
    EXPECT_EQ(ReasonOf(R"({"metadata": {}, )" + good.substr(1)), "plugin root is not an object");
    EXPECT_EQ(ReasonOf(WithVersion("1", R"(, "version": 1)")), "plugin root is not an object");
    EXPECT_EQ(ReasonOf(WithVersion("1", R"(, "more": {"a": 1, "\u0061": 2})")), "plugin root is not an object");
    EXPECT_EQ(ReasonOf(WithVersion("1", R"(, "more": [{"a": 1}, {"a": {"a": 2}}])")), "loaded");
}

TEST_F(JsonPlugin, AllowsCommentsOfBothForms) {
    EXPECT_NO_THROW(Load("// first\n/* of\n two */" + WithVersion("1 /* one */") + "// last"));
    EXPECT_EQ(Load(WithVersion("1", "", R"("start": ["a // b", "/* c */"])"))->Description().startCommands,
              Words({"a // b", "/* c */"}));
}

TEST_F(JsonPlugin, IgnoresMembersThatItDoesNotKnow) {
    EXPECT_NO_THROW(Load(
        R"({"$schema": "x", "extra": [1], "metadata": {"version": 1, "requires": [], "provides": [], "note": null},)"
        R"( "operations": {"start": [], "stop": 7}})"));
}

TEST_F(JsonPlugin, RejectsAFileWithoutMetadata) {
    EXPECT_EQ(ReasonOf(R"({"operations": {"start": []}})"), "invalid metadata interface");
    EXPECT_EQ(ReasonOf(R"({"metadata": [], "operations": {"start": []}})"), "invalid metadata interface");
}

TEST_F(JsonPlugin, RejectsAFileWithoutOperationsOnceAllMetadataIsRead) {
    EXPECT_EQ(ReasonOf(R"({"metadata": {"version": 1, "requires": [], "provides": []}})"),
              "invalid operations interface");
    EXPECT_EQ(ReasonOf(R"({"metadata": {"version": 1, "requires": [], "provides": []}, "operations": 7})"),
              "invalid operations interface");
    EXPECT_EQ(ReasonOf(R"({"metadata": {"version": 3, "requires": [], "provides": [], "run_once": true}})"),
              "metadata is corrupt (unable to parse plugin_version)");
}

TEST_F(JsonPlugin, RejectsBarrierListsThatAreNone) {
    EXPECT_EQ(ReasonOf(Document(R"("version": 1, "provides": [])")), "metadata is corrupt (unable to parse requires)");
    EXPECT_EQ(ReasonOf(Document(R"("version": 1, "requires": "a", "provides": [])")),
              "metadata is corrupt (unable to parse requires)");
    EXPECT_EQ(ReasonOf(Document(R"("version": 1, "requires": [])")), "metadata is corrupt (unable to parse provides)");
}

TEST_F(JsonPlugin, RejectsBarrierListsThatHoldMoreThanStrings) {
    EXPECT_EQ(ReasonOf(Document(R"("version": 1, "requires": ["a", 7], "provides": [])")),
              "requires tag is not a string");
    EXPECT_EQ(ReasonOf(Document(R"("version": 1, "requires": [], "provides": [null])")),
              "provides tag is not a string");
}

TEST_F(JsonPlugin, RejectsFlagListsThatAreNone) {
    const std::string rest = R"(, "run_once": true, "plugin_version": "1")";
    EXPECT_EQ(ReasonOf(WithVersion("3", R"(, "required_flags": "a")" + rest)),
              "metadata is corrupt (unable to parse required_flags)");
    EXPECT_EQ(ReasonOf(WithVersion("3", R"(, "required_flags": null)" + rest)),
              "metadata is corrupt (unable to parse required_flags)");
    EXPECT_EQ(ReasonOf(WithVersion("3", R"(, "disabling_flags": {})" + rest)),
              "metadata is corrupt (unable to parse disabling_flags)");
    EXPECT_EQ(ReasonOf(WithVersion("3", R"(, "required_flags": [1])" + rest)), "required_flags tag is not a string");
    EXPECT_EQ(ReasonOf(WithVersion("3", R"(, "disabling_flags": ["a", []])" + rest)),
              "disabling_flags tag is not a string");
}

TEST_F(JsonPlugin, RejectsRunOnceDataOfOtherTypes) {
    EXPECT_EQ(ReasonOf(WithVersion("3", R"(, "run_once": 1, "plugin_version": "1")")),
              "metadata is corrupt (unable to parse run_once)");
    EXPECT_EQ(ReasonOf(WithVersion("4", R"(, "run_once": true, "plugin_version": 1.0)")),
              "metadata is corrupt (unable to parse plugin_version)");
}

TEST_F(JsonPlugin, RejectsCommandListsThatAreNone) {
    EXPECT_EQ(ReasonOf(WithVersion("1", "", "")), "operations is corrupt (unable to parse start)");
    EXPECT_EQ(ReasonOf(WithVersion("1", "", R"("start": "a")")), "operations is corrupt (unable to parse start)");
    EXPECT_EQ(ReasonOf(WithVersion("2", "", R"("start": [], "apply_host_profile": null)")),
              "operations is corrupt (unable to parse apply-host-profile)");
}

TEST_F(JsonPlugin, RejectsCommandsThatAreNoStrings) {
    EXPECT_EQ(ReasonOf(WithVersion("1", "", R"("start": ["a", ["b"]])")), "command is not a string");
    EXPECT_EQ(ReasonOf(WithVersion("2", "", R"("start": [], "apply_host_profile": [7])")), "command is not a string");
}

// A file in which everything is wrong, mended one fault after another.
TEST_F(JsonPlugin, ReportsTheFirstFaultOfSeveral) {
    const std::vector<std::pair<std::string, std::string>> members = {
        {R"("version": 3)", "metadata is corrupt (unable to parse version)"},
        {R"("requires": [])", "metadata is corrupt (unable to parse requires)"},
        {R"("provides": [])", "metadata is corrupt (unable to parse provides)"},
        {R"("required_flags": [])", "metadata is corrupt (unable to parse required_flags)"},
        {R"("disabling_flags": [])", "metadata is corrupt (unable to parse disabling_flags)"},
        {R"("run_once": true)", "metadata is corrupt (unable to parse run_once)"},
        {R"("plugin_version": "")", "metadata is corrupt (unable to parse plugin_version)"},
    };
    const std::string faulty = R"("start": 0, "apply_host_profile": 0)";
    for (std::size_t mended = 0; mended <= members.size(); ++mended) {
        std::string metadata;
        for (std::size_t index = 0; index < members.size(); ++index) {
            const std::string& member = members[index].first;
            metadata += index == 0 ? "" : ", ";
            metadata += index < mended ? member : member.substr(0, member.find(' ')) + " null";
        }
        EXPECT_EQ(ReasonOf("{\"metadata\": {" + metadata + "}, \"operations\": 0}"),
                  mended < members.size() ? members[mended].second : "invalid operations interface");
    }
    EXPECT_EQ(ReasonOf(R"({"metadata": 0, "operations": 0})"), "invalid metadata interface");
    EXPECT_EQ(ReasonOf(Document(R"("version": 5, "requires": 0)", faulty)), "Unsupported API version");
    EXPECT_EQ(ReasonOf(WithVersion("2", "", faulty)), "operations is corrupt (unable to parse start)");
}

TEST_F(JsonPlugin, KeepsTheLinksOfAFileThatIsRejectedFurtherDown) {
    const PluginDescription half =
        Describe(Document(R"("version": 1, "requires": ["before"], "provides": ["after", 7])"));
    EXPECT_NE(half.failure, nullptr);
    EXPECT_EQ(test::Required(half), Words({"before"}));
    EXPECT_EQ(test::Provided(half), Words());  // no name of a list counts before the whole list was read

    const PluginDescription whole = Describe(Document(R"("version": 1, "requires": [], "provides": ["done"])", ""));
    EXPECT_NE(whole.failure, nullptr);
    EXPECT_EQ(test::Provided(whole), Words({"done"}));
}

TEST_F(JsonPlugin, SurvivesNestingOf100000Levels) {
    constexpr std::size_t depth = 100000;
    const std::string arrays = std::string(depth, '[') + std::string(depth, ']');
    std::string objects;
    for (std::size_t level = 0; level < depth; ++level) {
        objects += "{\"a\":";
    }
    objects += "1" + std::string(depth, '}');
    EXPECT_EQ(ReasonOf(arrays), "plugin root is not an object");
    EXPECT_EQ(ReasonOf(std::string(depth, '[')), "plugin root is not an object");
    EXPECT_EQ(ReasonOf(objects), "invalid metadata interface");
    EXPECT_EQ(ReasonOf(WithVersion(arrays)), "metadata is corrupt (unable to parse version)");
    EXPECT_NO_THROW(Load(WithVersion("1", R"(, "more": )" + arrays)));
    EXPECT_NO_THROW(Load(WithVersion("1", R"(, "more": )" + objects)));
}

TEST_F(JsonPlugin, ReadsALongCommand) {
    const std::string command(4U << 20U, 'x');
    EXPECT_EQ(Load(WithVersion("1", "", R"("start": [")" + command + R"("])"))->Description().startCommands,
              Words({command}));
}

TEST_F(JsonPlugin, RejectsAFileOf50MegabytesThatIsNoDocument) {
    EXPECT_EQ(ReasonOf(std::string(50U << 20U, 'x')), "plugin root is not an object");
}

TEST_F(JsonPlugin, RejectsWhatIsNoFileAtOnce) {
    ASSERT_EQ(::mkdir((directory / "folder.json").c_str(), 0700), 0);
    ASSERT_EQ(::mkfifo((directory / "pipe.json").c_str(), 0600), 0);
    std::filesystem::create_symlink("/dev/zero", directory / "endless.json");
    std::filesystem::create_symlink("nowhere", directory / "dangling.json");
    EXPECT_EQ(ReasonOfFile("folder.json"), "plugin root is not an object");
    EXPECT_EQ(ReasonOfFile("pipe.json"), "plugin root is not an object");
    EXPECT_EQ(ReasonOfFile("endless.json"), "plugin root is not an object");
    EXPECT_EQ(ReasonOfFile("dangling.json"), "no such file or directory");
}

// A command list run with a fake executor, which records the commands and fails those that say so.
class CommandList : public testing::Test {
  protected:
    std::string FailureOf(const Words& commands) {
        return test::FailureOf<MethodFailedException>([&] {
            RunCommandList("start", "net", commands, [this](const std::string& command) {
                sent.push_back(command);
                if (command.starts_with("fail")) {
                    throw Exception("failed: " + command);
                }
                if (command == "odd") {
                    throw 7;  // NOLINT: anything may be thrown
                }
            });
        });
    }

    Words sent;
    LogCapture log;
};

TEST_F(CommandList, SendsEveryCommandInOrder) {
    EXPECT_EQ(FailureOf({"b", "a", "b"}), test::kNoFailure);
    EXPECT_EQ(sent, Words({"b", "a", "b"}));
    EXPECT_EQ(log.Lines(), Words());
}

TEST_F(CommandList, GoesOnAfterAFailureAndFailsOnceAtTheEnd) {
    EXPECT_EQ(FailureOf({"a", "fail b", "c"}), "net->start() failed: error while executing the cli");
    EXPECT_EQ(sent, Words({"a", "fail b", "c"}));
    EXPECT_EQ(log.Lines(kError), Words({"failed: fail b"}));
}

TEST_F(CommandList, LogsOneLinePerFailure) {
    EXPECT_EQ(FailureOf({"fail 1", "fail %s", "fail 3"}), "net->start() failed: error while executing the cli");
    EXPECT_EQ(log.Lines(), Words({"failed: fail 1", "failed: fail %s", "failed: fail 3"}));
}

TEST_F(CommandList, CountsFailuresWithoutATextWithoutLoggingThem) {
    EXPECT_EQ(FailureOf({"odd", "a"}), "net->start() failed: error while executing the cli");
    EXPECT_EQ(sent, Words({"odd", "a"}));
    EXPECT_EQ(log.Lines(), Words());
}

}  // namespace
}  // namespace lofter
