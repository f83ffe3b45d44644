#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "autocli/autocli.h"
#include "support/TemporaryDirectory.h"

namespace lofter {
namespace {

using Words = std::vector<std::string>;
using Parameters = std::vector<std::pair<std::string, std::string>>;

AutoCli::OptionParser Parsed(const std::string& line) {
    AutoCli::OptionParser parser;
    EXPECT_FALSE(parser.ParseString(line));
    return parser;
}

Words ErrorsOf(const std::string& line) {
    return Parsed(line).GetParseErrors();
}
Words PathOf(const std::string& line) {
    const AutoCli::OptionParser parser = Parsed(line);
    EXPECT_EQ(parser.GetParseErrors(), Words());
    return parser.GetCommandPath();
}
Parameters ParametersOf(const std::string& line) {
    const AutoCli::OptionParser parser = Parsed(line);
    EXPECT_EQ(parser.GetParseErrors(), Words());
    return parser.GetCommandParameters();
}

TEST(OptionParser, TakesLeadingWordsAsThePath) {
    EXPECT_EQ(PathOf("network ip set"), Words({"network", "ip", "set"}));
}

TEST(OptionParser, KeepsParametersInTheirOrder) {
    EXPECT_EQ(ParametersOf("a --z=1 --a=2 --z=3"), Parameters({{"z", "1"}, {"a", "2"}, {"z", "3"}}));
}

TEST(OptionParser, GivesAParameterWithoutValueAnEmptyOne) {
    EXPECT_EQ(ParametersOf("a --force --name="), Parameters({{"force", ""}, {"name", ""}}));
}

TEST(OptionParser, SplitsAParameterAtItsFirstEqualsSign) {
    EXPECT_EQ(ParametersOf("a --set=x=y"), Parameters({{"set", "x=y"}}));
}

TEST(OptionParser, SeparatesWordsAtAnyNumberOfBlanks) {
    EXPECT_EQ(PathOf("  network \t ip\nset "), Words({"network", "ip", "set"}));
}

TEST(OptionParser, TakesQuotedTextLiterally) {
    EXPECT_EQ(ParametersOf(R"(a --one='x  "y" \z $HOME')"), Parameters({{"one", R"(x  "y" \z $HOME)"}}));
    EXPECT_EQ(ParametersOf(R"(a --two="x  'y' \" `id` *")"), Parameters({{"two", R"(x  'y' " `id` *)"}}));
    EXPECT_EQ(ParametersOf(R"(a --three=x\ y\\)"), Parameters({{"three", R"(x y\)"}}));
    EXPECT_EQ(ParametersOf(R"(a "--four"='x'y"z")"), Parameters({{"four", "xyz"}}));
}

TEST(OptionParser, HasNoComments) {
    EXPECT_EQ(PathOf("a #b"), Words({"a", "#b"}));
    EXPECT_EQ(PathOf("#a b"), Words({"#a", "b"}));
    EXPECT_EQ(ParametersOf("a --colour='#fff' --x=a#b"), Parameters({{"colour", "#fff"}, {"x", "a#b"}}));
    EXPECT_EQ(PathOf("\x01 #\x02"), Words({"\x01", "#\x02"}));
}

TEST(OptionParser, GoesOnInTheNextLineBehindABackslash) {
    EXPECT_EQ(PathOf("a\\\nb \\\n c"), Words({"ab", "c"}));
    EXPECT_EQ(ParametersOf("a --x=\"b\\\nc\""), Parameters({{"x", "bc"}}));
    EXPECT_EQ(ParametersOf("a --x='b\\\nc'"), Parameters({{"x", "b\\\nc"}}));
    EXPECT_EQ(ErrorsOf("\\\n"), Words({"empty command"}));
}

TEST(OptionParser, MakesAWordOfEmptyQuotes) {
    EXPECT_EQ(PathOf("a '' \"\""), Words({"a", "", ""}));
    EXPECT_EQ(PathOf("a \"\\\n\""), Words({"a", ""}));
}

TEST(OptionParser, PassesBytesThatAreNoTextThrough) {
    EXPECT_EQ(ParametersOf("a --x=\xff\xfe\x01"), Parameters({{"x", "\xff\xfe\x01"}}));
    std::string everything;
    for (char symbol = '\x7f'; symbol != '\0'; --symbol) {
        everything += symbol == '\'' ? std::string() : std::string(1, symbol);
    }
    for (int symbol = 0x80; symbol < 0x100; ++symbol) {
        everything += static_cast<char>(symbol);
    }
    EXPECT_EQ(ParametersOf("a --x='" + everything + "' --y=#"), Parameters({{"x", everything}, {"y", "#"}}));
    EXPECT_EQ(PathOf("a '" + everything + "' #"), Words({"a", everything, "#"}));
}

TEST(OptionParser, ReportsAnEmptyCommand) {
    EXPECT_EQ(ErrorsOf(""), Words({"empty command"}));
    EXPECT_EQ(ErrorsOf(" \t\n"), Words({"empty command"}));
}

TEST(OptionParser, ReportsAnUnterminatedQuote) {
    EXPECT_EQ(ErrorsOf("a --x='y"), Words({"unterminated quote or backslash"}));
    EXPECT_EQ(ErrorsOf("a --x=\"y"), Words({"unterminated quote or backslash"}));
    EXPECT_EQ(ErrorsOf("a \\"), Words({"unterminated quote or backslash"}));
}

TEST(OptionParser, ReportsEveryWordAfterTheFirstOption) {
    EXPECT_EQ(ErrorsOf("a --x=1 b --y c"), Words({"word after the first option: b", "word after the first option: c"}));
}

TEST(OptionParser, ReportsOptionsThatAreNotOfTheForm) {
    const std::string text = "not of the form --name or --name=value: ";
    EXPECT_EQ(ErrorsOf("a -x -- --=v -"), Words({text + "-x", text + "--", text + "--=v", text + "-"}));
}

TEST(OptionParser, ReportsOptionsWithoutACommand) {
    EXPECT_EQ(ErrorsOf("--x=1"), Words({"options without a command"}));
}

TEST(OptionParser, StartsFromNothingWithEveryLine) {
    AutoCli::OptionParser parser;
    parser.ParseString("a --x=1 b");
    parser.ParseString("c");
    EXPECT_EQ(parser.GetParseErrors(), Words());
    EXPECT_EQ(parser.GetCommandPath(), Words({"c"}));
    EXPECT_EQ(parser.GetCommandParameters(), Parameters());
}

TEST(OptionParser, PrintsTheFormOfACommandLineForHelpAnywhere) {
    for (const std::string line : {"--help", "network ip --help", "--help a", "a --x=1 b --help", "a '--help'"}) {
        AutoCli::OptionParser parser;
        testing::internal::CaptureStdout();
        EXPECT_TRUE(parser.ParseString(line)) << line;
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "usage: <word> [<word>...] [--name[=value]...]\n") << line;
    }
}

TEST(OptionParser, ListsTheKnownCommandsInTheHelp) {
    const test::TemporaryDirectory directory;
    directory.WriteScript("network.ip.set", "");
    directory.WriteScript("motd.set", "");
    AutoCli::Dispatcher dispatcher;
    dispatcher.AddExternalDirectory(directory.Path());
    AutoCli::OptionParser parser;
    testing::internal::CaptureStdout();
    EXPECT_TRUE(parser.ParseString("--help"));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "usage: <word> [<word>...] [--name[=value]...]\ncommands:\n  motd set\n  network ip set\n");
}

TEST(OptionParser, TakesAValueOfHelpForAnOrdinaryParameter) {
    EXPECT_EQ(ParametersOf("a --help=no"), Parameters({{"help", "no"}}));
}

}  // namespace
}  // namespace lofter
