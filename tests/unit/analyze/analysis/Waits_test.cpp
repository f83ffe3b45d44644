#include "analysis/Waits.h"

#include <gtest/gtest.h>

#include "support/TestBoot.h"

namespace lofter::analyze {
namespace {

using test::BootOf;
using test::IndexOf;
using test::Names;

// "ready wait barrier opener", with "-" for what there is not.
std::string WaitOf(const Boot& boot, const std::string& name) {
    const std::optional<Wait> wait = FindWaits(boot)[IndexOf(boot, name)];
    if (!wait) {
        return "nothing";
    }
    return std::to_string(wait->ready) + ' ' + std::to_string(wait->wait) + ' ' +
           (wait->barrier ? boot.barriers[*wait->barrier].name : "-") + ' ' +
           (wait->opener ? boot.plugins[*wait->opener].Name() : "-");
}

TEST(Waits, EndWithTheBarrierThatOpenedLast) {
    const Boot boot = BootOf(
        "hw: provides disk ran 5 30\n"
        "net: provides link ran 5 20\n"
        "ntp: requires disk link ran 33 40");
    EXPECT_EQ(WaitOf(boot, "ntp"), "30 3 disk hw");
    EXPECT_EQ(WaitOf(boot, "hw"), "0 5 - -");
}

TEST(Waits, EndForABarrierWithTheLastPluginThatProvidesIt) {
    const Boot boot = BootOf(
        "first: provides disk ran 0 10\n"
        "second: provides disk ran 10 25\n"
        "third: provides disk ran 10 15\n"
        "user: requires disk ran 25 30");
    EXPECT_EQ(WaitOf(boot, "user"), "25 0 disk second");
}

TEST(Waits, AreNotForPluginsThatAreKeptOutOrDidNotRun) {
    const Boot boot = BootOf(
        "gone: provides disk ran 0 90 out\n"
        "never: provides link\n"
        "user: requires disk link nowhere ran 7 30");
    EXPECT_EQ(WaitOf(boot, "user"), "0 7 - -");
    EXPECT_EQ(WaitOf(boot, "gone"), "nothing");
    EXPECT_EQ(WaitOf(boot, "never"), "nothing");
}

TEST(Waits, EndAtTheStartOfAPluginThatTheOperatorSkipped) {
    const Boot boot = BootOf(
        "asked: provides disk began 12\n"
        "user: requires disk ran 14 30");
    EXPECT_EQ(WaitOf(boot, "user"), "12 2 disk asked");
    EXPECT_EQ(WaitOf(boot, "asked"), "0 12 - -");
}

TEST(Waits, AreNeverNegative) {
    const Boot boot = BootOf(
        "hw: provides disk ran 0 10\n"
        "user: requires disk ran 4 30");
    EXPECT_EQ(WaitOf(boot, "user"), "10 0 disk hw");
}

TEST(Waits, OfBarriersThatOpenedTogetherAreForTheFirstByName) {
    const Boot boot = BootOf(
        "one: provides z ran 0 10\n"
        "two: provides y ran 0 10\n"
        "three: provides y ran 0 10\n"
        "user: requires z y ran 10 30");
    EXPECT_EQ(WaitOf(boot, "user"), "10 0 y two");
}

TEST(Waits, FollowAClockThatWasSetDuringTheBoot) {
    const Boot boot = BootOf(
        "hw: provides disk ran -90 -80\n"
        "user: requires disk ran -75 30");
    EXPECT_EQ(WaitOf(boot, "user"), "-80 5 disk hw");
}

TEST(ChainOfWaits, LeadsFromAPluginThatWaitsForNobodyToTheLast) {
    const Boot boot = BootOf(
        "late: requires b ran 30 40\n"
        "middle: requires a provides b ran 12 30\n"
        "beside: provides b ran 0 20\n"
        "first: provides a ran 0 12");
    EXPECT_EQ(Names(boot, ChainTo(IndexOf(boot, "late"), FindWaits(boot))), "first middle late");
    EXPECT_EQ(Names(boot, ChainTo(IndexOf(boot, "beside"), FindWaits(boot))), "beside");
}

TEST(ChainOfWaits, EndsWhereALogOfAnotherHostLeadsInACircle) {
    const Boot boot = BootOf(
        "a: requires x provides y ran 0 10\n"
        "b: requires y provides x ran 0 12\n"
        "self: requires z provides z ran 0 12");
    EXPECT_EQ(Names(boot, ChainTo(IndexOf(boot, "a"), FindWaits(boot))), "b a");
    EXPECT_EQ(Names(boot, ChainTo(IndexOf(boot, "self"), FindWaits(boot))), "self");
}

TEST(LastPluginToEnd, IsTheFirstOfThoseThatEndTogether) {
    const Boot boot = BootOf(
        "a: ran 0 10\n"
        "b: ran 0 12\n"
        "c: ran 3 12\n"
        "skipped: began 20\n"
        "gone: ran 0 30 out");
    EXPECT_EQ(LastToEnd(boot), IndexOf(boot, "b"));
    EXPECT_EQ(LastToEnd(BootOf("a: provides x\nskipped: began 20")), std::nullopt);
}

}  // namespace
}  // namespace lofter::analyze
