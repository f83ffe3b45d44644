#include "report/Text.h"

#include <limits>
#include <sstream>

#include <gtest/gtest.h>

namespace lofter::analyze {
namespace {

std::string Printed(const Table& table, bool colours = false) {
    std::ostringstream output;
    table.Print(output, Palette(colours));
    return output.str();
}

TEST(Text, NamesCannotDisturbATerminal) {
    EXPECT_EQ(Shown("net"), "net");
    EXPECT_EQ(Shown("a\x1b[2Jb\n\t"), "a\\x1b[2Jb\\x0a\\x09");
    EXPECT_EQ(Shown("\xc3\xa4\xff"), "\xc3\xa4\\xff");
}

TEST(Text, DurationsAreExactToTheMicrosecond) {
    EXPECT_EQ(ShownDuration(0), "0us");
    EXPECT_EQ(ShownDuration(999), "999us");
    EXPECT_EQ(ShownDuration(1000), "1ms");
    EXPECT_EQ(ShownDuration(12345), "12.345ms");
    EXPECT_EQ(ShownDuration(1005), "1.005ms");
    EXPECT_EQ(ShownDuration(999999), "999.999ms");
    EXPECT_EQ(ShownDuration(1000000), "1s");
    EXPECT_EQ(ShownDuration(1234567), "1.234567s");
    EXPECT_EQ(ShownDuration(60000001), "60.000001s");
}

TEST(Text, DurationsBeforeTheBeginningHaveASign) {
    EXPECT_EQ(ShownDuration(-1), "-1us");
    EXPECT_EQ(ShownDuration(-1500000), "-1.5s");
    EXPECT_EQ(ShownDuration(std::numeric_limits<Microseconds>::min()), "-9223372036854.775808s");
}

TEST(Palette, PaintsOnlyWhenItHasColours) {
    EXPECT_EQ(Palette(false).Paint(Colour::Red, "net"), "net");
    EXPECT_EQ(Palette(true).Paint(Colour::Red, "net"), "\x1b[31mnet\x1b[0m");
    EXPECT_EQ(Palette(true).Paint(Colour::None, "net"), "net");
    EXPECT_EQ(Palette(true).Paint(Colour::Bold, ""), "");
}

TEST(Palette, HasAColourForEachOfItsNames) {
    const Palette palette(true);
    EXPECT_EQ(palette.Paint(Colour::Yellow, "x"), "\x1b[33mx\x1b[0m");
    EXPECT_EQ(palette.Paint(Colour::Blue, "x"), "\x1b[34mx\x1b[0m");
    EXPECT_EQ(palette.Paint(Colour::Green, "x"), "\x1b[32mx\x1b[0m");
    EXPECT_EQ(palette.Paint(Colour::Bold, "x"), "\x1b[1mx\x1b[0m");
    EXPECT_EQ(palette.Paint(Colour::Faint, "x"), "\x1b[2mx\x1b[0m");
}

TEST(Table, ColumnsAreAsWideAsTheirWidestCell) {
    Table table({{"plugin"}, {"time", Table::Align::Right}, {"waited for"}});
    table.Add({"net", "1.5ms", "link"});
    table.Add({"hw-and-more", "20us", ""});
    EXPECT_EQ(Printed(table),
              "plugin        time  waited for\n"
              "net          1.5ms  link\n"
              "hw-and-more   20us\n");
}

TEST(Table, ALastColumnOfNumbersStandsAtTheRight) {
    Table table({{"plugin"}, {"time", Table::Align::Right}});
    table.Add({"net", "1.5ms"});
    table.Add({"hw", "20us"});
    EXPECT_EQ(Printed(table),
              "plugin   time\n"
              "net     1.5ms\n"
              "hw       20us\n");
}

TEST(Table, CountsCharactersNotBytes) {
    Table table({{"a"}, {"b"}});
    table.Add({"\xc3\xa4\xc3\xb6", "x"});
    table.Add({"abc", "y"});
    EXPECT_EQ(Printed(table),
              "a    b\n"
              "\xc3\xa4\xc3\xb6   x\n"
              "abc  y\n");
}

TEST(Table, WhatDoesNotFitGoesOnInTheLastColumnBetweenWords) {
    Table table({{"plugin"}, {"waits for"}});
    std::string words = "barrier-0";
    for (int number = 1; number < 10; ++number) {
        words += " barrier-" + std::to_string(number);
    }
    table.Add({"net", words});
    EXPECT_EQ(Printed(table),
              "plugin  waits for\n"
              "net     barrier-0 barrier-1 barrier-2 barrier-3 barrier-4 barrier-5 barrier-6\n"
              "        barrier-7 barrier-8 barrier-9\n");
}

TEST(Table, AWordThatIsTooLongIsCutAtTheWidth) {
    Table table({{"plugin"}, {"waits for"}});
    table.Add({"net", std::string(100, 'x')});
    EXPECT_EQ(Printed(table),
              "plugin  waits for\nnet     " + std::string(72, 'x') + "\n        " + std::string(28, 'x') + '\n');
}

TEST(Table, ACutNeverSplitsACharacter) {
    Table table({{"p"}, {"q"}});
    std::string word;
    for (int letter = 0; letter < 78; ++letter) {
        word += "\xe2\x82\xac";
    }
    table.Add({"n", word});
    std::string first;
    for (int letter = 0; letter < 77; ++letter) {
        first += "\xe2\x82\xac";
    }
    EXPECT_EQ(Printed(table), "p  q\nn  " + first + "\n   \xe2\x82\xac\n");
}

TEST(Table, KeepsALastColumnBehindVeryLongNames) {
    Table table({{"plugin"}, {"waits for"}});
    const std::string name(90, 'n');
    table.Add({name, "one two three four five six"});
    EXPECT_EQ(Printed(table), "plugin" + std::string(86, ' ') + "waits for\n" + name + "  one two three four\n" +
                                  std::string(92, ' ') + "five six\n");
}

TEST(Table, PaintsHeadingsAndWholeRows) {
    Table table({{"plugin"}, {"time"}});
    table.Add({"net", "1s"}, Colour::Red);
    table.Add({"hw", "2s"});
    EXPECT_EQ(Printed(table, true), "\x1b[1mplugin  time\x1b[0m\n\x1b[31mnet     1s\x1b[0m\nhw      2s\n");
}

TEST(Table, WithoutRowsIsItsHeadings) {
    EXPECT_EQ(Printed(Table({{"plugin"}, {"time"}})), "plugin  time\n");
}

}  // namespace
}  // namespace lofter::analyze
