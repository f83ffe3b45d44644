// What an action fails with.
#pragma once

#include <exception>
#include <string>
#include <type_traits>
#include <typeinfo>

#include <gtest/gtest.h>

namespace lofter::test {

inline constexpr char kNoFailure[] = "";

// The text of the exception that the action throws, empty when there is none. The exception has to be of exactly the
// expected type, unless any standard exception is expected; others pass through.
template <typename Expected = std::exception, typename Action>
std::string FailureOf(const Action& action) {
    try {
        action();
    } catch (const Expected& failure) {
        EXPECT_TRUE((std::is_same_v<Expected, std::exception>) || typeid(failure) == typeid(Expected))
            << typeid(failure).name() << ": " << failure.what();
        return failure.what();
    }
    return kNoFailure;
}

}  // namespace lofter::test
