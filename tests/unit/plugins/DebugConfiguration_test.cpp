#include "plugins/DebugConfiguration.h"

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/BreakingStream.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

namespace lofter {
namespace {

using Names = std::vector<std::string>;
using Entries = std::vector<test::LogCapture::Entry>;

class DebugConfiguration : public testing::Test {
  protected:
    static std::vector<DebugEntry> Parse(const std::string& text) {
        std::istringstream input(text);
        return ParseDebugConfiguration(input);
    }

    // For a text that has one valid entry.
    static DebugEntry ParseOne(const std::string& text) {
        const std::vector<DebugEntry> entries = Parse(text);
        EXPECT_EQ(entries.size(), 1U) << text;
        return entries.empty() ? DebugEntry{} : entries.front();
    }

    test::LogCapture log;
};

TEST_F(DebugConfiguration, HasNameTwoBarrierListsAndACommandPerLine) {
    const DebugEntry entry = ParseOne("wait:link,disk:ready,steady:sleep 5; true\n");
    EXPECT_EQ(entry.name, "wait");
    EXPECT_EQ(entry.requiredBarriers, (Names{"link", "disk"}));
    EXPECT_EQ(entry.providedBarriers, (Names{"ready", "steady"}));
    EXPECT_EQ(entry.command, "sleep 5; true");
    EXPECT_EQ(log.Entries(), Entries{});
}

TEST_F(DebugConfiguration, AcceptsAnEntryWithoutDependencies) {
    const DebugEntry entry = ParseOne("name:::command");
    EXPECT_EQ(entry.name, "name");
    EXPECT_EQ(entry.requiredBarriers, Names{});
    EXPECT_EQ(entry.providedBarriers, Names{});
    EXPECT_EQ(entry.command, "command");
}

TEST_F(DebugConfiguration, AcceptsEmptyFields) {
    const DebugEntry entry = ParseOne(":::");
    EXPECT_EQ(entry.name + entry.command, "");
}

TEST_F(DebugConfiguration, LogsLinesWithAnotherNumberOfFieldsWithTheirNumber) {
    EXPECT_EQ(Parse("a:b:c\n"
                    "ok:::true\n"
                    "a:::echo x:y\n"
                    "# no comment\n")
                  .size(),
              1U);
    EXPECT_EQ(log.Entries(), (Entries{{125, "ignoring malformed debug entry at line 1: a:b:c"},
                                      {125, "ignoring malformed debug entry at line 3: a:::echo x:y"},
                                      {125, "ignoring malformed debug entry at line 4: # no comment"}}));
}

TEST_F(DebugConfiguration, AcceptsAColonInAQuotedOrEscapedCommand) {
    EXPECT_EQ(ParseOne(R"(a:::"echo x:y")").command, "echo x:y");
    EXPECT_EQ(ParseOne("a:::'echo x:y'").command, "echo x:y");
    EXPECT_EQ(ParseOne(R"(a:::echo x\:y)").command, "echo x:y");
    EXPECT_EQ(ParseOne(R"(a:::echo \"x\" \\ \'y\')").command, R"(echo "x" \ 'y')");
    EXPECT_EQ(ParseOne(R"(a:::echo x\ny)").command, "echo x\ny");
    EXPECT_EQ(log.Entries(), Entries{});
}

TEST_F(DebugConfiguration, LetsAnUnterminatedQuoteRunToTheEndOfTheLine) {
    EXPECT_EQ(ParseOne("a:::'echo x:y\n").command, "echo x:y");
    EXPECT_EQ(Parse("a:'b:c:d\nok:::true\n").size(), 1U);
    EXPECT_EQ(log.Entries(), (Entries{{125, "ignoring malformed debug entry at line 1: a:'b:c:d"}}));
}

TEST_F(DebugConfiguration, SkipsBlankLinesSilentlyButCountsThem) {
    EXPECT_EQ(Parse("\n \t \n\r\nbad\n\na:::true").size(), 1U);
    EXPECT_EQ(log.Entries(), (Entries{{125, "ignoring malformed debug entry at line 4: bad"}}));
}

TEST_F(DebugConfiguration, StripsLinesAtBothEnds) {
    const DebugEntry entry = ParseOne(" \t a:b:c:echo x \t\r\n");
    EXPECT_EQ(entry.name, "a");
    EXPECT_EQ(entry.command, "echo x");
    EXPECT_EQ(Parse(" x \r\n").size(), 0U);
    EXPECT_EQ(log.Entries(), (Entries{{125, "ignoring malformed debug entry at line 1: x"}}));
}

TEST_F(DebugConfiguration, StripsBarrierListsButNotTheirNames) {
    const DebugEntry entry = ParseOne("a: b , c : d:x");
    EXPECT_EQ(entry.requiredBarriers, (Names{"b ", " c"}));
    EXPECT_EQ(entry.providedBarriers, Names{"d"});
}

TEST_F(DebugConfiguration, KeepsEmptyBarrierNamesBetweenAndBehindSeparators) {
    const DebugEntry entry = ParseOne("a:b,:,,c:x");
    EXPECT_EQ(entry.requiredBarriers, (Names{"b", ""}));
    EXPECT_EQ(entry.providedBarriers, (Names{"", "", "c"}));
    EXPECT_EQ(ParseOne("a:  : \t :x").requiredBarriers, Names{});
}

// Once as a field of the line, once as a list.
TEST_F(DebugConfiguration, TakesQuotesAndEscapesOutOfBarrierListsTwice) {
    const DebugEntry entry = ParseOne(R"(a:\"b,c\",d:e\\,f,"g:h":x)");
    EXPECT_EQ(entry.requiredBarriers, (Names{"b,c", "d"}));
    EXPECT_EQ(entry.providedBarriers, (Names{"e,f", "g:h"}));
}

TEST_F(DebugConfiguration, LogsAMisusedBackslashWithItsReasonAndSkipsThatLineOnly) {
    EXPECT_EQ(Parse("a:::echo \\x\n"
                    "b:::echo \\\n"
                    "c:\\\\x::echo\n"
                    "ok:::true\n")
                  .size(),
              1U);
    EXPECT_EQ(log.Entries(),
              (Entries{{115, "skipping debug entry at line 1: a:::echo \\x (unknown escape sequence)"},
                       {115, "skipping debug entry at line 2: b:::echo \\ (cannot end with escape)"},
                       {115, "skipping debug entry at line 3: c:\\\\x::echo (unknown escape sequence)"}}));
}

TEST_F(DebugConfiguration, KeepsEveryEntryOfTheSameName) {
    const std::vector<DebugEntry> entries = Parse("a:::one\nb:::two\na:::three");
    ASSERT_EQ(entries.size(), 3U);
    EXPECT_EQ(entries[0].command, "one");
    EXPECT_EQ(entries[1].name, "b");
    EXPECT_EQ(entries[2].command, "three");
}

TEST_F(DebugConfiguration, TakesNamesAsTheyAre) {
    const DebugEntry entry = ParseOne("100%s \xc3\xa4 n:%n:\xe2\x82\xac:x");
    EXPECT_EQ(entry.name, "100%s \xc3\xa4 n");
    EXPECT_EQ(entry.requiredBarriers, Names{"%n"});
    EXPECT_EQ(entry.providedBarriers, Names{"\xe2\x82\xac"});
    Parse("100%s%n");
    EXPECT_EQ(log.Entries(), (Entries{{125, "ignoring malformed debug entry at line 1: 100%s%n"}}));
}

TEST_F(DebugConfiguration, SurvivesNulBytesAndALineOfTenMegabytes) {
    EXPECT_EQ(Parse(std::string("a\0b:::x\n\0\nok:::true", 20)).size(), 2U);
    log.Clear();
    const std::string longText(10UL << 20U, 'x');
    EXPECT_EQ(Parse(longText + "\nok:::" + longText.substr(0, 100'000)).size(), 1U);
    EXPECT_EQ(log.Lines(), Names{"ignoring malformed debug entry at line 1: " + longText});
}

TEST_F(DebugConfiguration, KeepsTheEntriesInFrontOfAFailureAndSaysSo) {
    test::BreakingStream stream("a:::true\nb:::true\nc::");
    EXPECT_EQ(ParseDebugConfiguration(stream).size(), 2U);
    EXPECT_EQ(log.Lines(115), std::vector<std::string>{"unable to read all debug entries"});
}

TEST_F(DebugConfiguration, FromAFileThatCannotBeReadIsEmptyWithoutAMessage) {
    const test::TemporaryDirectory folder;
    EXPECT_TRUE(ReadDebugConfiguration(folder / "missing").empty());
    EXPECT_TRUE(ReadDebugConfiguration(folder.Path()).empty());
    EXPECT_TRUE(ReadDebugConfiguration(folder.Write("empty", "")).empty());
    EXPECT_EQ(log.Entries(), Entries{});
    EXPECT_EQ(ReadDebugConfiguration(folder.Write("file", "a:::x\r\nb:::y")).size(), 2U);
}

}  // namespace
}  // namespace lofter
