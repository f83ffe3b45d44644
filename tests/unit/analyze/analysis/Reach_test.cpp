#include "analysis/Reach.h"

#include <gtest/gtest.h>

#include "support/TestBoot.h"

namespace lofter::analyze {
namespace {

using test::BootOf;
using test::IndexOf;
using test::Names;

// hw -> disk -> mounts -> log
//   \-> net -------------> ntp (requires both log and net)
constexpr char kHost[] =
    "hw: provides hw\n"
    "disk: requires hw provides disk\n"
    "mounts: requires disk provides mounts\n"
    "log: requires mounts provides log\n"
    "net: requires hw provides net\n"
    "ntp: requires net log";

std::string Reached(const std::string& text, const std::string& from, Direction direction,
                    std::size_t distance = kAnyDistance) {
    const Boot boot = BootOf(text);
    const PluginSet reached = Reach(boot, PluginsNamed(boot, from), direction, distance);
    std::vector<PluginIndex> plugins;
    for (PluginIndex index = 0; index < reached.size(); ++index) {
        if (reached[index]) {
            plugins.push_back(index);
        }
    }
    return Names(boot, plugins);
}

TEST(Reach, BeforeIsAllThatAPluginWaitsFor) {
    EXPECT_EQ(Reached(kHost, "log", Direction::Before), "hw disk mounts log");
    EXPECT_EQ(Reached(kHost, "hw", Direction::Before), "hw");
}

TEST(Reach, AfterIsAllThatWaitsForAPlugin) {
    EXPECT_EQ(Reached(kHost, "disk", Direction::After), "disk mounts log ntp");
    EXPECT_EQ(Reached(kHost, "ntp", Direction::After), "ntp");
}

TEST(Reach, GoesOnlySoFar) {
    EXPECT_EQ(Reached(kHost, "log", Direction::Before, 1), "mounts log");
    EXPECT_EQ(Reached(kHost, "log", Direction::Before, 0), "log");
    EXPECT_EQ(Reached(kHost, "hw", Direction::After, 2), "hw disk mounts net ntp");
}

TEST(Reach, AroundGoesBothWays) {
    EXPECT_EQ(Reached(kHost, "disk", Direction::Both, 1), "hw disk mounts");
    EXPECT_EQ(Reached(kHost, "disk", Direction::Both, 2), "hw disk mounts log net");
}

TEST(Reach, ThoseThatWaitForTheSameBarrierAreNotNextToEachOther) {
    EXPECT_EQ(Reached("a: provides x\nb: requires x\nc: requires x", "b", Direction::Both, 1), "a b");
    EXPECT_EQ(Reached("a: provides x\nb: requires x\nc: requires x", "b", Direction::Both, 2), "a b c");
}

TEST(Reach, EndsAtAPluginThatIsKeptOut) {
    constexpr char kText[] = "a: provides x\nb: requires x provides y out\nc: requires y";
    EXPECT_EQ(Reached(kText, "c", Direction::Before), "b c");
    EXPECT_EQ(Reached(kText, "a", Direction::After), "a b");
    EXPECT_EQ(Reached(kText, "b", Direction::Both), "a b c");
}

TEST(Reach, GoesRoundALoopOnce) {
    EXPECT_EQ(Reached("a: requires y provides x\nb: requires x provides y", "a", Direction::After), "a b");
}

TEST(Reach, BeginsAtAllPluginsOfAName) {
    EXPECT_EQ(Reached("a: provides x\nb: requires x\na: provides y\nc: requires y", "a", Direction::After), "a b a c");
}

TEST(PluginsNamed, AreNoneWhenTheNameIsUnknown) {
    EXPECT_TRUE(PluginsNamed(BootOf(kHost), "nobody").empty());
}

}  // namespace
}  // namespace lofter::analyze
