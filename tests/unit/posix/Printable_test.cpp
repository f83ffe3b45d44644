#include "posix/Printable.h"

#include <array>

#include <gtest/gtest.h>

namespace posix {
namespace {

TEST(Printable, IsATextWithoutControlCharactersAsItIs) {
    for (const std::string text :
         {"", "plain", "two\nlines\tand a tab", "back\\slash \\x1b", "\xc3\xa4 \xe2\x82\xac \xf0\x9f\x98\x80",
          "\xc2\xa0 no control", "Latin-1: \xe4\xff\xa0"}) {
        EXPECT_TRUE(IsPrintable(text)) << text;
        EXPECT_EQ(Printable(text), text);
    }
}

TEST(Printable, SpellsControlCharactersOut) {
    using namespace std::string_literals;
    for (const auto& [text, shown] :
         {std::pair{"a\x1b[1mb"s, R"(a\x1b[1mb)"}, {"\0"s, R"(\x00)"}, {"\r\x7f\x1f\b"s, R"(\x0d\x7f\x1f\x08)"}}) {
        EXPECT_FALSE(IsPrintable(text)) << shown;
        EXPECT_EQ(Printable(text), shown);
    }
}

TEST(Printable, SpellsUpperControlCharactersOutHoweverTheyAreWritten) {
    // In UTF-8, in no encoding, at the end of what looks like a sequence, and in sequences that are none.
    for (const auto& [text, shown] : {std::pair{"\xc2\x80\xc2\x9b", R"(\xc2\x80\xc2\x9b)"},
                                      {"\x9b"
                                       "1m",
                                       R"(\x9b1m)"},
                                      {"\xe2\x9b", "\xe2\\x9b"},
                                      {"\xc1\x9b", "\xc1\\x9b"},
                                      {"\xe0\x82\x9b", "\xe0\\x82\\x9b"},
                                      {"\xed\xa0\x80", "\xed\xa0\\x80"},
                                      {"\xf4\x90\x80\x80", "\xf4\\x90\\x80\\x80"},
                                      {"\xf0\x9f\x98", "\xf0\\x9f\\x98"}}) {
        EXPECT_FALSE(IsPrintable(text)) << shown;
        EXPECT_EQ(Printable(text), shown);
    }
}

TEST(Printable, EndsBetweenCharactersWhereTheRoomEnds) {
    std::array<char, 12> bytes{};
    const auto In = [&](std::size_t length, std::string_view text) {
        return std::string(Printable(text, std::span(bytes).first(length)));
    };
    EXPECT_EQ(In(5, "a\x1b"), R"(a\x1b)");
    EXPECT_EQ(In(4, "a\x1b"), "a");
    EXPECT_EQ(In(8, "a\xc2\x9b"), "a");
    EXPECT_EQ(In(9, "a\xc2\x9b"), R"(a\xc2\x9b)");
    EXPECT_EQ(In(3, "a\xe2\x82\xac"), "a");
    EXPECT_EQ(In(4, "a\xe2\x82\xac"), "a\xe2\x82\xac");
    EXPECT_EQ(In(0, "a"), "");
}

}  // namespace
}  // namespace posix
