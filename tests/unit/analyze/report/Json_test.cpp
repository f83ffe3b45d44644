#include "report/Json.h"

#include <cstdint>
#include <sstream>

#include <gtest/gtest.h>

namespace lofter::analyze {
namespace {

std::string Printed(const Json& answer) {
    std::ostringstream output;
    Print(answer, output);
    return output.str();
}

TEST(Json, AnAnswerSaysWhoGivesItAndToWhat) {
    EXPECT_EQ(Printed(Answer("why")), "{\n  \"schema\": \"lofter-analyze/1\",\n  \"command\": \"why\"\n}\n");
}

TEST(Json, MembersKeepTheirOrder) {
    Json answer = Answer("diff");
    answer["z"] = 1;
    answer["a"] = 2;
    EXPECT_EQ(Printed(answer),
              "{\n  \"schema\": \"lofter-analyze/1\",\n  \"command\": \"diff\",\n  \"z\": 1,\n  \"a\": 2\n}\n");
}

TEST(Json, WhatIsUnknownIsNull) {
    EXPECT_TRUE(OrNull(std::optional<std::int64_t>()).is_null());
    EXPECT_EQ(OrNull(std::optional<std::int64_t>(5)), 5);
}

TEST(Json, WhatIsNotUtf8BecomesTheReplacementCharacter) {
    EXPECT_EQ(Printed(Json("a\xff"
                           "b")),
              "\"a\xef\xbf\xbd"
              "b\"\n");
}

TEST(Json, ControlCharactersAreEscaped) {
    EXPECT_EQ(Printed(Json("a\x1b\n")), "\"a\\u001b\\n\"\n");
}

}  // namespace
}  // namespace lofter::analyze
