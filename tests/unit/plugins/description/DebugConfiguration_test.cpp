#include "plugins/description/DebugConfiguration.h"

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/BreakingStream.h"
#include "support/Plugins.h"
#include "support/TemporaryDirectory.h"

namespace lofter {
namespace {

using Names = std::vector<std::string>;

DebugConfiguration Parse(const std::string& text) {
    std::istringstream input(text);
    return ParseDebugConfiguration(input);
}

// The lines that are no entries, "<number>: <line> (<misuse>)".
Names Skipped(const DebugConfiguration& configuration) {
    Names lines;
    for (const auto& [number, text, misuse] : configuration.skipped) {
        lines.push_back(std::to_string(number) + ": " + text + (misuse.empty() ? "" : " (" + misuse + ")"));
    }
    return lines;
}

// Of a text that has one valid entry and nothing else.
struct Entry {
    explicit Entry(const std::string& text) {
        const DebugConfiguration configuration = Parse(text);
        EXPECT_EQ(Skipped(configuration), Names{});
        EXPECT_EQ(configuration.entries.size(), 1U) << text;
        const PluginDescription& only = configuration.entries.at(0);
        name = only.name;
        requiredBarriers = test::Required(only);
        providedBarriers = test::Provided(only);
        command = only.startCommands.at(0);
    }

    std::string name;
    Names requiredBarriers;
    Names providedBarriers;
    std::string command;
};

TEST(DebugConfiguration, HasNameTwoBarrierListsAndACommandPerLine) {
    const Entry entry("wait:link,disk:ready,steady:sleep 5; true\n");
    EXPECT_EQ(entry.name, "wait");
    EXPECT_EQ(entry.requiredBarriers, (Names{"link", "disk"}));
    EXPECT_EQ(entry.providedBarriers, (Names{"ready", "steady"}));
    EXPECT_EQ(entry.command, "sleep 5; true");
}

TEST(DebugConfiguration, AcceptsAnEntryWithoutDependencies) {
    const Entry entry("name:::command");
    EXPECT_EQ(entry.name, "name");
    EXPECT_EQ(entry.requiredBarriers, Names{});
    EXPECT_EQ(entry.providedBarriers, Names{});
    EXPECT_EQ(entry.command, "command");
}

TEST(DebugConfiguration, AcceptsEmptyFields) {
    const Entry entry(":::");
    EXPECT_EQ(entry.name + entry.command, "");
}

TEST(DebugConfiguration, SkipsLinesWithAnotherNumberOfFieldsAndKnowsTheirNumber) {
    const DebugConfiguration configuration = Parse(
        "a:b:c\n"
        "ok:::true\n"
        "a:::echo x:y\n"
        "# no comment\n");
    EXPECT_EQ(configuration.entries.size(), 1U);
    EXPECT_EQ(Skipped(configuration), (Names{"1: a:b:c", "3: a:::echo x:y", "4: # no comment"}));
}

TEST(DebugConfiguration, AcceptsAColonInAQuotedOrEscapedCommand) {
    EXPECT_EQ(Entry(R"(a:::"echo x:y")").command, "echo x:y");
    EXPECT_EQ(Entry("a:::'echo x:y'").command, "echo x:y");
    EXPECT_EQ(Entry(R"(a:::echo x\:y)").command, "echo x:y");
    EXPECT_EQ(Entry(R"(a:::echo \"x\" \\ \'y\')").command, R"(echo "x" \ 'y')");
    EXPECT_EQ(Entry(R"(a:::echo x\ny)").command, "echo x\ny");
}

TEST(DebugConfiguration, LetsAnUnterminatedQuoteRunToTheEndOfTheLine) {
    EXPECT_EQ(Entry("a:::'echo x:y\n").command, "echo x:y");
    EXPECT_EQ(Skipped(Parse("a:'b:c:d\nok:::true\n")), Names{"1: a:'b:c:d"});
}

TEST(DebugConfiguration, SkipsBlankLinesSilentlyButCountsThem) {
    EXPECT_EQ(Parse("\n \t \n\r\nbad\n\na:::true").entries.size(), 1U);
    EXPECT_EQ(Skipped(Parse("\n \t \n\r\nbad\n\na:::true")), Names{"4: bad"});
}

TEST(DebugConfiguration, StripsLinesAtBothEnds) {
    const Entry entry(" \t a:b:c:echo x \t\r\n");
    EXPECT_EQ(entry.name, "a");
    EXPECT_EQ(entry.command, "echo x");
    EXPECT_EQ(Skipped(Parse(" x \r\n")), Names{"1: x"});
}

TEST(DebugConfiguration, StripsBarrierListsButNotTheirNames) {
    const Entry entry("a: b , c : d:x");
    EXPECT_EQ(entry.requiredBarriers, (Names{"b ", " c"}));
    EXPECT_EQ(entry.providedBarriers, Names{"d"});
}

TEST(DebugConfiguration, KeepsEmptyBarrierNamesBetweenAndBehindSeparators) {
    const Entry entry("a:b,:,,c:x");
    EXPECT_EQ(entry.requiredBarriers, (Names{"b", ""}));
    EXPECT_EQ(entry.providedBarriers, (Names{"", "", "c"}));
    EXPECT_EQ(Entry("a:  : \t :x").requiredBarriers, Names{});
}

// Once as a field of the line, once as a list.
TEST(DebugConfiguration, TakesQuotesAndEscapesOutOfBarrierListsTwice) {
    const Entry entry(R"(a:\"b,c\",d:e\\,f,"g:h":x)");
    EXPECT_EQ(entry.requiredBarriers, (Names{"b,c", "d"}));
    EXPECT_EQ(entry.providedBarriers, (Names{"e,f", "g:h"}));
}

TEST(DebugConfiguration, SkipsAMisusedBackslashWithItsReasonAndThatLineOnly) {
    const DebugConfiguration configuration = Parse(
        "a:::echo \\x\n"
        "b:::echo \\\n"
        "c:\\\\x::echo\n"
        "ok:::true\n");
    EXPECT_EQ(configuration.entries.size(), 1U);
    EXPECT_EQ(Skipped(configuration),
              (Names{"1: a:::echo \\x (unknown escape sequence)", "2: b:::echo \\ (cannot end with escape)",
                     "3: c:\\\\x::echo (unknown escape sequence)"}));
}

TEST(DebugConfiguration, KeepsEveryEntryOfTheSameName) {
    const std::vector<PluginDescription> entries = Parse("a:::one\nb:::two\na:::three").entries;
    ASSERT_EQ(entries.size(), 3U);
    EXPECT_EQ(entries[0].startCommands, Names{"one"});
    EXPECT_EQ(entries[1].name, "b");
    EXPECT_EQ(entries[2].startCommands, Names{"three"});
}

TEST(DebugConfiguration, TakesNamesAsTheyAre) {
    const Entry entry("100%s \xc3\xa4 n:%n:\xe2\x82\xac:x");
    EXPECT_EQ(entry.name, "100%s \xc3\xa4 n");
    EXPECT_EQ(entry.requiredBarriers, Names{"%n"});
    EXPECT_EQ(entry.providedBarriers, Names{"\xe2\x82\xac"});
    EXPECT_EQ(Skipped(Parse("100%s%n")), Names{"1: 100%s%n"});
}

TEST(DebugConfiguration, SurvivesNulBytesAndALineOfTenMegabytes) {
    EXPECT_EQ(Parse(std::string("a\0b:::x\n\0\nok:::true", 20)).entries.size(), 2U);
    const std::string longText(10UL << 20U, 'x');
    const DebugConfiguration configuration = Parse(longText + "\nok:::" + longText.substr(0, 100'000));
    EXPECT_EQ(configuration.entries.size(), 1U);
    EXPECT_EQ(Skipped(configuration), Names{"1: " + longText});
}

TEST(DebugConfiguration, KeepsTheEntriesInFrontOfAFailureAndSaysSo) {
    test::BreakingStream stream("a:::true\nb:::true\nc::");
    const DebugConfiguration configuration = ParseDebugConfiguration(stream);
    EXPECT_EQ(configuration.entries.size(), 2U);
    EXPECT_TRUE(configuration.isCutShort);
    EXPECT_FALSE(Parse("a:::true").isCutShort);
}

TEST(DebugConfiguration, FromAFileThatCannotBeReadIsEmptyWithoutAMessage) {
    const test::TemporaryDirectory folder;
    EXPECT_TRUE(ReadDebugConfiguration(folder / "missing").entries.empty());
    EXPECT_TRUE(ReadDebugConfiguration(folder.Path()).entries.empty());
    EXPECT_TRUE(ReadDebugConfiguration(folder.Write("empty", "")).entries.empty());
    EXPECT_EQ(ReadDebugConfiguration(folder.Write("file", "a:::x\r\nb:::y")).entries.size(), 2U);
}

}  // namespace
}  // namespace lofter
