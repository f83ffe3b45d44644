#include "input/Durations.h"

#include <gtest/gtest.h>

namespace lofter::analyze {
namespace {

TEST(Durations, AreAnIntegerAndAUnit) {
    EXPECT_EQ(ParseDuration("0us"), 0);
    EXPECT_EQ(ParseDuration("850us"), 850);
    EXPECT_EQ(ParseDuration("20ms"), 20'000);
    EXPECT_EQ(ParseDuration("3s"), 3'000'000);
    EXPECT_EQ(ParseDuration("1000000000s"), 1'000'000'000'000'000);
}

TEST(Durations, AreNothingElse) {
    for (const char* text : {"", "20", "ms", "-1ms", "+1ms", " 1ms", "1ms ", "1 ms", "1.5s", "1m", "1MS", "0x1s",
                             "1000000001s", "99999999999999999999us"}) {
        EXPECT_EQ(ParseDuration(text), std::nullopt) << text;
    }
}

}  // namespace
}  // namespace lofter::analyze
