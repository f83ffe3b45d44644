#include "plugins/description/JsonFile.h"

#include <chrono>
#include <functional>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/TemporaryDirectory.h"

namespace lofter {
namespace {

TEST(JsonFileContent, IsWhatTheFileHolds) {
    const test::TemporaryDirectory folder;
    const std::string content = std::string(100'000, 'x') + std::string("\r\n\0end", 6);
    EXPECT_EQ(ReadFileContent(folder.Write("file", content)), content);
}

TEST(JsonFileContent, IsNoneWhenTheFileCannotBeOpened) {
    const test::TemporaryDirectory folder;
    EXPECT_EQ(ReadFileContent(folder / "missing"), std::nullopt);
}

TEST(JsonFileContent, IsEmptyOfWhatIsNoFile) {
    const test::TemporaryDirectory folder;
    EXPECT_EQ(ReadFileContent(folder.Path()), "");
    EXPECT_EQ(ReadFileContent("/dev/zero"), "");
}

TEST(JsonFileContent, IsEmptyOfAFileThatCannotBeRead) {
    EXPECT_EQ(ReadFileContent("/proc/self/mem"), "");  // opens, but nothing is mapped at its begin
}

constexpr int kMany = 100'000;

// The text that many times.
std::string Many(const std::string& text) {
    std::string all;
    for (int count = 0; count < kMany; ++count) {
        all += text;
    }
    return all;
}

// Generous: what takes a second at most would take minutes if every member cost as much as those before it together.
void ExpectReadSoon(const std::string& text, const std::function<void(const nlohmann::json&)>& check) {
    const auto start = std::chrono::steady_clock::now();
    check(ParseJson(text));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}

TEST(JsonDocument, IsReadSoonHoweverManyMembersAnObjectHas) {
    std::string text = "{";
    for (int number = 0; number < kMany; ++number) {
        text += (number > 0 ? ",\"" : "\"") + std::to_string(number) + "\":{}";
    }
    ExpectReadSoon(text + "}", [](const auto& document) { EXPECT_EQ(document.size(), kMany); });
    ExpectReadSoon(text + ",\"7\":{}}", [](const auto& document) { EXPECT_TRUE(document.is_discarded()); });
}

TEST(JsonDocument, IsReadSoonHoweverManyElementsAnArrayHas) {
    ExpectReadSoon("[" + Many("{},") + "[]]", [](const auto& document) { EXPECT_EQ(document.size(), kMany + 1); });
}

TEST(JsonDocument, IsReadAndLetGoOfHoweverDeepItIs) {
    const auto isRead = [](const auto& document) {
        EXPECT_EQ(document.size(), 1U);
    };
    const auto isInvalid = [](const auto& document) {
        EXPECT_TRUE(document.is_discarded());
    };
    ExpectReadSoon("{\"ignored\":" + Many("[") + Many("]") + "}", isRead);
    ExpectReadSoon(Many("{\"a\":") + "0" + Many("}"), isRead);
    ExpectReadSoon(Many("{\"a\":[") + Many("]}"), isRead);
    ExpectReadSoon(Many("["), isInvalid);
    ExpectReadSoon(Many("{\"a\":") + "0", isInvalid);
    ExpectReadSoon(Many("{\"a\":") + "{\"b\":0,\"b\":0}" + Many("}"), isInvalid);
}

TEST(JsonDocument, HasEveryKeyOfAnObjectOnce) {
    for (const char* text : {R"({"a":1,"a":1})", R"([{"b":{"a":1,"":2,"a":3}}])", R"({"a":{"a":1},"a":2})",
                             R"({"a":1,"\u0061":2})", R"({"":1,"":2})"}) {
        EXPECT_TRUE(ParseJson(text).is_discarded()) << text;
    }
    for (const char* text : {R"({"a":{"a":1},"b":{"a":1}})", R"([{"a":1},{"a":1}])", R"({"a":"a","A":"a"})"}) {
        EXPECT_FALSE(ParseJson(text).is_discarded()) << text;
    }
}

TEST(JsonDocument, IsDiscardedWhenTheTextIsNotValid) {
    for (const std::string text :
         {"", "{", "{}}", "{} 1", "{\"a\":1,}", "[1e999]", "/", "// only", "\xEF\xBB\xBF{}", "\"\xFF\""}) {
        EXPECT_TRUE(ParseJson(text).is_discarded()) << text;
    }
    EXPECT_TRUE(ParseJson(std::string("{}\0", 3)).is_discarded());
}

// "<byte>: <what>"
std::string FaultOf(const std::string& text) {
    const std::optional<JsonFault> fault = FindJsonFault(text);
    return fault ? std::to_string(fault->byte) + ": " + fault->text : "";
}

TEST(JsonFault, IsWhereTheTextIsNotValidAnyMore) {
    EXPECT_EQ(FaultOf("{\"a\": 1,}"), "8: not valid JSON");
    EXPECT_EQ(FaultOf("{\"a\": 1"), "7: not valid JSON");
    EXPECT_EQ(FaultOf(""), "0: not valid JSON");
    EXPECT_EQ(FaultOf("{} 1"), "3: not valid JSON");
    EXPECT_EQ(FaultOf("\xEF\xBB\xBF{}"), "0: a byte order mark");
    EXPECT_EQ(FaultOf(std::string("{}\0", 3)), "2: a NUL byte");
}

TEST(JsonFault, IsTheSecondOfTwoMembersOfOneName) {
    EXPECT_EQ(FaultOf(R"({"a":1,"a":1})"), "7: the member \"a\" a second time");
    EXPECT_EQ(FaultOf(R"({"a":{"a":1},/*"a":*/"\u0061" :2})"), "21: the member \"a\" a second time");
    EXPECT_EQ(FaultOf(R"({"\"\\":1, "\"\\":2})"), "11: the member \"\"\\\" a second time");
}

TEST(JsonFault, IsNoneOfAValidText) {
    EXPECT_EQ(FaultOf(R"({"a": [1, 2.5], "b": {"a": null}} // end)"), "");
}

TEST(JsonDocument, MayHaveCommentsOfBothForms) {
    EXPECT_EQ(ParseJson("// one\n{\"a\" /* two */ : 1.5} // three").at("a"), 1.5);
}

}  // namespace
}  // namespace lofter
