#include "input/JsonPlaces.h"

#include <gtest/gtest.h>

namespace lofter::analyze {
namespace {

std::string Shown(const TextPosition& position) {
    return std::to_string(position.line) + ":" + std::to_string(position.column);
}

// "name@place=place(parts)" of every part, and "[]" around those of an array.
std::string Shown(const JsonPart& part) {
    std::string text = part.name.empty() ? "" : part.name + "@" + Shown(part.namePosition) + "=";
    text += Shown(part.position);
    for (const JsonPart& inner : part.parts) {
        text += " (" + Shown(inner) + ")";
    }
    return text;
}

TEST(JsonPlaces, AreThoseOfMembersAndElements) {
    EXPECT_EQ(Shown(FindJsonParts("{\n  \"a\": [1, \"x\"],\n  \"b\" : {\"c\":null}\n}")),
              "1:1 (a@2:3=2:8 (2:9) (2:12)) (b@3:3=3:9 (c@3:10=3:14))");
}

TEST(JsonPlaces, CountCharactersAndPassOverComments) {
    EXPECT_EQ(Shown(FindJsonParts("/* é */ {\"ü\": 1, // {\"x\": 2}\n\"z\"/**/:/* : */2}")),
              "1:9 (ü@1:10=1:15) (z@2:1=2:16)");
}

TEST(JsonPlaces, KnowNamesAsTheyAreMeant) {
    EXPECT_EQ(Shown(FindJsonParts(R"({"a\"\u0062}": "\"}", "c": 1})")), "1:1 (a\"b}@1:2=1:16) (c@1:23=1:28)");
}

TEST(JsonPlaces, GoThreeLevelsDeepHoweverDeepTheTextIs) {
    EXPECT_EQ(Shown(FindJsonParts(R"([[[[1], {"a": "]"}], 2], 3])")), "1:1 (1:2 (1:3 (1:4) (1:9)) (1:22)) (1:26)");
    constexpr int kDeep = 200'000;
    const std::string deep = std::string(kDeep, '[') + std::string(kDeep, ']');
    EXPECT_EQ(Shown(FindJsonParts(deep)), "1:1 (1:2 (1:3 (1:4)))");
}

TEST(JsonPlaces, OfWhatIsNotValidAreSomething) {
    for (const std::string text :
         {"", "{", "[", "\"", "{\"a", "{\"a\":", "[,", "}", "/*", "//", "{]", "{\"a\"}", "\\", "[\"\\"}) {
        EXPECT_EQ(Shown(FindJsonParts(text).position).substr(0, 2), "1:") << text;
    }
}

TEST(JsonPlaces, OfAByteIsWhereItStands) {
    EXPECT_EQ(Shown(PositionOf("a\nbéc", 0)), "1:1");
    EXPECT_EQ(Shown(PositionOf("a\nbéc", 2)), "2:1");
    EXPECT_EQ(Shown(PositionOf("a\nbéc", 5)), "2:3");
    EXPECT_EQ(Shown(PositionOf("a\nbéc", 99)), "2:4");
}

TEST(JsonPart, HasMembersOnlyWhenItIsAnObject) {
    const JsonPart root = FindJsonParts(R"({"a": ["b"], "c": 1})");
    ASSERT_NE(root.Member("a"), nullptr);
    EXPECT_TRUE(root.Member("a")->parts.at(0).isString);
    EXPECT_EQ(root.Member("a")->Member(""), nullptr);
    EXPECT_EQ(root.Member("b"), nullptr);
}

}  // namespace
}  // namespace lofter::analyze
