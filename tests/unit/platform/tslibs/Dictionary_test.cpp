#include "tslibs/dictionary.h"

#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace {

class DictionaryTest : public testing::Test {
  protected:
    const std::unique_ptr<Dictionary, decltype(&Dictionary_Free)> owner{Dictionary_Create(), &Dictionary_Free};
    Dictionary* const dictionary = owner.get();
};

TEST_F(DictionaryTest, AnswersWithTheFallbackForKeysItLacks) {
    EXPECT_STREQ(Dict_GetString(dictionary, "key", "fallback"), "fallback");
    EXPECT_EQ(Dict_GetString(dictionary, "key", nullptr), nullptr);
    EXPECT_TRUE(Dict_GetBool(dictionary, "key", true));
    EXPECT_FALSE(Dict_GetBool(dictionary, "key", false));
}

TEST_F(DictionaryTest, CopiesKeysAndValues) {
    std::string key = "key";
    std::string value = "value";
    Dict_SetString(dictionary, key.c_str(), value.c_str());
    key = "xxx";
    value = "xxxxx";
    EXPECT_STREQ(Dict_GetString(dictionary, "key", ""), "value");
}

TEST_F(DictionaryTest, KeepsTheLatestValueOfAKey) {
    Dict_SetString(dictionary, "key", "old");
    Dict_SetString(dictionary, "key", "new");
    EXPECT_STREQ(Dict_GetString(dictionary, "key", ""), "new");
    Dict_SetBool(dictionary, "key", true);
    EXPECT_TRUE(Dict_GetBool(dictionary, "key", false));
}

TEST_F(DictionaryTest, DoesNotConvertBetweenTypes) {
    Dict_SetString(dictionary, "text", "true");
    Dict_SetBool(dictionary, "truth", true);
    EXPECT_FALSE(Dict_GetBool(dictionary, "text", false));
    EXPECT_STREQ(Dict_GetString(dictionary, "truth", "fallback"), "fallback");
}

TEST_F(DictionaryTest, IsEmptyAfterItWasCleared) {
    Dict_SetString(dictionary, "key", "value");
    Dictionary_Clear(dictionary);
    EXPECT_STREQ(Dict_GetString(dictionary, "key", "fallback"), "fallback");
}

}  // namespace
