#include "analysis/Course.h"

#include <gtest/gtest.h>

#include "support/TestBoot.h"

namespace lofter::analyze {
namespace {

using test::BootOf;
using test::IndexOf;
using test::Names;

// The lanes' names, a bar between lanes.
std::string Lanes(const Boot& boot) {
    std::string text;
    for (const std::vector<PluginIndex>& lane : FindCourse(boot).lanes) {
        text += (text.empty() ? "" : " | ") + Names(boot, lane);
    }
    return text;
}

TEST(Course, PluginsOneAfterTheOtherShareALane) {
    EXPECT_EQ(Lanes(BootOf("a: ran 0 10\nb: ran 10 20\nc: ran 25 30")), "a b c");
}

TEST(Course, PluginsThatRunAtOnceHaveLanesOfTheirOwn) {
    EXPECT_EQ(Lanes(BootOf("a: ran 0 10\nb: ran 5 30\nc: ran 9 12")), "a | b | c");
}

TEST(Course, APluginTakesTheFirstLaneThatIsFree) {
    EXPECT_EQ(Lanes(BootOf("a: ran 0 20\nb: ran 0 10\nc: ran 12 14\nd: ran 20 30\ne: ran 22 30")), "a d | b c e");
}

TEST(Course, LanesAreByStartWhateverTheOrderOfTheLog) {
    EXPECT_EQ(Lanes(BootOf("late: ran 10 20\nearly: ran 0 10")), "early late");
}

TEST(Course, WhatTakesNoTimeLeavesItsLaneToWhatBeginsAtTheSameInstant) {
    EXPECT_EQ(Lanes(BootOf("b: ran 5 9\na: ran 5 5\ns: began 5")), "a s b");
}

TEST(Course, PluginsThatDidNotRunAreInNoLane) {
    EXPECT_EQ(Lanes(BootOf("a: ran 0 10\nb: requires x\nc: out")), "a");
}

TEST(Course, TheChainLeadsToTheLastToEnd) {
    const Boot boot = BootOf(
        "a: provides x ran 0 10\n"
        "b: provides y ran 0 30\n"
        "c: requires x y ran 30 50\n"
        "d: requires x ran 10 20");
    const Course course = FindCourse(boot);
    EXPECT_EQ(Names(boot, course.chain), "b c");
    EXPECT_TRUE(course.isCritical[IndexOf(boot, "b")]);
    EXPECT_FALSE(course.isCritical[IndexOf(boot, "a")]);
    EXPECT_EQ(course.begin, 0);
    EXPECT_EQ(course.end, 50);
}

TEST(Course, BeginsBeforeLofterWhenTheClockWasSetMeanwhile) {
    const Course course = FindCourse(BootOf("a: ran -30 -10\nb: ran -10 5"));
    EXPECT_EQ(course.begin, -30);
    EXPECT_EQ(course.end, 5);
}

TEST(Course, TheTimeTakenIsNothingWithoutAnEnd) {
    const Boot boot = BootOf("a: ran 3 10\ns: began 4");
    EXPECT_EQ(TimeTaken(boot.plugins[0]), 7);
    EXPECT_EQ(TimeTaken(boot.plugins[1]), 0);
}

}  // namespace
}  // namespace lofter::analyze
