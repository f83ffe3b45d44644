#include "tslibs/OsRelease.h"

#include <sstream>

#include <gtest/gtest.h>

namespace platform {
namespace {

std::string Field(const std::string& field, const std::string& text) {
    std::istringstream file(text);
    return OsReleaseField(file, field);
}

std::string Value(const std::string& text) {
    return Field("NAME", "NAME=" + text + "\n");
}

TEST(OsRelease, HasAFieldPerLine) {
    const std::string text = "NAME=host\n# NAME=comment\n\nPRETTY_NAME=\"host 1\"\nVERSION_ID=1.0";
    EXPECT_EQ(Field("NAME", text), "host");
    EXPECT_EQ(Field("PRETTY_NAME", text), "host 1");
    EXPECT_EQ(Field("VERSION_ID", text), "1.0");
    EXPECT_EQ(Field("BUILD_ID", text), "");
    EXPECT_EQ(Field("NAME", "NAME=first\nNAME=last\n"), "last");
}

TEST(OsRelease, QuotesValuesAsAShellDoes) {
    EXPECT_EQ(Value(R"("a host")"), "a host");
    EXPECT_EQ(Value(R"('a "host"')"), R"(a "host")");
    EXPECT_EQ(Value(R"("a \"host\" for \$5 \\ \`")"), R"(a "host" for $5 \ `)");
    EXPECT_EQ(Value(R"("a\host")"), R"(a\host)");
    EXPECT_EQ(Value(R"('a\$host')"), R"(a\$host)");
    EXPECT_EQ(Value(R"(a\ host)"), "a host");
    EXPECT_EQ(Value(R"(a"b"'c')"), "abc");
    EXPECT_EQ(Value(R"("")"), "");
    EXPECT_EQ(Value("key=value"), "key=value");
}

TEST(OsRelease, TakesWhatIsNoValueAsItIs) {
    EXPECT_EQ(Value(R"("open)"), "open");
    EXPECT_EQ(Value("end\\"), "end\\");
    EXPECT_EQ(Field("NAME", ""), "");
    EXPECT_EQ(Field("NAME", "NAME"), "");
}

}  // namespace
}  // namespace platform
