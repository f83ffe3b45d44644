#include "tslibs/str.h"

#include <cstdlib>
#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace {

using Text = std::unique_ptr<char, decltype(&std::free)>;

__attribute__((format(printf, 2, 3))) Text Format(std::size_t* length, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Text text(Str_SafeVasprintf(length, format, arguments), &std::free);
    va_end(arguments);
    return text;
}

TEST(Str, FormatsIntoNewMemory) {
    std::size_t length = 0;
    EXPECT_STREQ(Format(&length, "%s-%03d", "text", 7).get(), "text-007");
    EXPECT_EQ(length, 8U);
}

TEST(Str, NeedsNoPlaceForTheLength) {
    const std::string longText(100'000, 'x');
    EXPECT_EQ(Format(nullptr, "%s", longText.c_str()).get(), longText);
}

}  // namespace
