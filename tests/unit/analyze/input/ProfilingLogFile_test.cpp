#include "input/ProfilingLogFile.h"

#include <sstream>

#include <gtest/gtest.h>

namespace lofter::analyze {

namespace {

constexpr char kConfiguration[] =
    "=== Lofter configuration info ===\n"
    " Start: 2026-11-21 20:00:00.000000\n"
    " End: 2026-11-21 20:00:03.500000\n"
    " Verbose: 0\n"
    " Parallel: 0\n"
    " Randomize: 0\n"
    " Interactive Mode: 0\n"
    " Random Seed: 1795291200\n";

struct Outcome {
    std::optional<LoggedBoot> boot;
    std::string warnings;
};

Outcome Parse(const std::string& content) {
    std::ostringstream warnings;
    std::optional<LoggedBoot> boot = ParseProfilingLog(content, "the.log", warnings);
    return {std::move(boot), warnings.str()};
}

// "hw 100000 200000, net 200000 -, disk none"
std::string Shown(const LoggedBoot& boot) {
    std::string text;
    for (const LoggedPlugin& plugin : boot.plugins) {
        text += (text.empty() ? "" : ", ") + plugin.name;
        if (!plugin.timing) {
            text += " none";
            continue;
        }
        text += ' ' + std::to_string(plugin.timing->start) + ' ' +
                (plugin.timing->end ? std::to_string(*plugin.timing->end) : "-");
    }
    return text;
}

TEST(ProfilingLogFile, TimesCountFromLoftersStart) {
    const Outcome outcome =
        Parse(std::string("Krxkernel Initialization Time: 2000000\n"
                          "[2026-11-21 20:00:00.100000 - 2026-11-21 20:00:01.000005] sysboot: hw\n"
                          "[2026-11-21 20:00:01.000005 - 2026-11-21 20:00:03.000000] sysboot: net\n") +
              kConfiguration);
    EXPECT_EQ(outcome.warnings, "");
    ASSERT_TRUE(outcome.boot);
    EXPECT_EQ(Shown(*outcome.boot), "hw 100000 1000005, net 1000005 3000000");
    EXPECT_EQ(outcome.boot->plugins[1].line, 3);
    EXPECT_EQ(outcome.boot->run.kernel, 2'000'000);
    EXPECT_EQ(outcome.boot->run.end, 3'500'000);
    EXPECT_FALSE(outcome.boot->run.isParallel);
}

TEST(ProfilingLogFile, APluginWithoutTimesDidNotRun) {
    const Outcome outcome =
        Parse(std::string("[1970-01-01 00:00:00.000000 - 1970-01-01 00:00:00.000000] sysboot: never\n"
                          "[2026-11-21 20:00:01.000000 - 1970-01-01 00:00:00.000000] sysboot: skipped\n"
                          "[2026-11-21 20:00:02.000000 - 2026-11-21 20:00:01.999999] sysboot: backwards\n"
                          "[1969-12-31 23:59:59.999999 - 2026-11-21 20:00:01.999999] sysboot: early\n"
                          "[2026-11-21 20:00:02.000000 - 2026-11-21 20:00:02.000000] sysboot: instant\n") +
              kConfiguration);
    ASSERT_TRUE(outcome.boot);
    EXPECT_EQ(Shown(*outcome.boot),
              "never none, skipped 1000000 -, backwards none, early none, instant 2000000 2000000");
    EXPECT_EQ(outcome.boot->run.kernel, std::nullopt);
}

TEST(ProfilingLogFile, NamesAreTakenToTheEndOfTheirLine) {
    const Outcome outcome = Parse(
        "[2026-11-21 20:00:00.000000 - 2026-11-21 20:00:01.000000] sysboot: \n"
        "[2026-11-21 20:00:00.000000 - 2026-11-21 20:00:01.000000] sysboot: a [b] sysboot: c ");
    ASSERT_TRUE(outcome.boot);
    EXPECT_EQ(Shown(*outcome.boot), " 0 1000000, a [b] sysboot: c  0 1000000");
}

TEST(ProfilingLogFile, SectionsOfDaemonRunsAreIgnored) {
    const Outcome outcome =
        Parse(std::string("[2026-11-21 20:00:01.000000 - 2026-11-21 20:00:02.000000] sysboot: hw\n") + kConfiguration +
              "[2026-11-21 20:00:09.000000 - 2026-11-21 20:00:10.000000] daemon: sshd\n"
              "=== Daemon configuration info ===\n"
              " Start Daemon: 2026-11-21 20:00:08.000000\n"
              " End Daemon: 2026-11-21 20:00:11.000000\n"
              " Verbose: 0\n"
              " Parallel: 1\n"
              " Randomize: 0\n"
              " Interactive Mode: 0\n"
              " Random Seed: 1\n");
    EXPECT_EQ(outcome.warnings, "");
    ASSERT_TRUE(outcome.boot);
    EXPECT_EQ(Shown(*outcome.boot), "hw 1000000 2000000");
    EXPECT_EQ(outcome.boot->run.end, 3'500'000);
    EXPECT_FALSE(outcome.boot->run.isParallel);
}

TEST(ProfilingLogFile, ALogOfDaemonRunsAloneHoldsNoBoot) {
    const Outcome outcome = Parse(
        "[2026-11-21 20:00:09.000000 - 2026-11-21 20:00:10.000000] daemon: sshd\n"
        "=== Daemon configuration info ===\n");
    EXPECT_FALSE(outcome.boot);
    EXPECT_EQ(outcome.warnings, "");
    EXPECT_FALSE(Parse("").boot);
}

TEST(ProfilingLogFile, OfSeveralBootsTheLastCounts) {
    const Outcome outcome =
        Parse(std::string("Krxkernel Initialization Time: 1000000\n"
                          "[2026-11-21 20:00:01.000000 - 2026-11-21 20:00:02.000000] sysboot: old\n") +
              kConfiguration +
              "Krxkernel Initialization Time: 3000000\n"
              "[2026-11-21 20:00:01.000000 - 2026-11-21 20:00:02.000000] sysboot: new\n" +
              kConfiguration);
    ASSERT_TRUE(outcome.boot);
    EXPECT_EQ(Shown(*outcome.boot), "new 1000000 2000000");
    EXPECT_EQ(outcome.boot->run.kernel, 3'000'000);
}

TEST(ProfilingLogFile, ABadLineIsLostAlone) {
    const Outcome outcome =
        Parse(std::string("Krxkernel Initialization Time: -1\n"
                          "[2026-11-31 20:00:01.000000 - 2026-11-21 20:00:02.000000] sysboot: no such day\n"
                          "[2026-11-21 20:00:01.000000 - 2026-11-21 20:00:02.000000] sysboot: good\n"
                          "[2026-11-21 20:00:01.000000 - 2026-11-21 20:00:02.00000] sysboot: short\n"
                          "\n"
                          "\x1b[2J\n") +
              kConfiguration);
    EXPECT_EQ(outcome.warnings,
              "lofter-analyze: warning: the.log:1: not a line of a profiling log\n"
              "lofter-analyze: warning: the.log:2: not a line of a profiling log\n"
              "lofter-analyze: warning: the.log:4: not a line of a profiling log\n"
              "lofter-analyze: warning: the.log:6: not a line of a profiling log\n");
    ASSERT_TRUE(outcome.boot);
    EXPECT_EQ(Shown(*outcome.boot), "good 1000000 2000000");
}

TEST(ProfilingLogFile, ManyBadLinesAreCounted) {
    std::string content;
    for (int line = 0; line < 23; ++line) {
        content += "bad\n";
    }
    const Outcome outcome = Parse(content);
    EXPECT_FALSE(outcome.boot);
    EXPECT_EQ(std::count(outcome.warnings.begin(), outcome.warnings.end(), '\n'), 21);
    EXPECT_TRUE(
        outcome.warnings.ends_with("the.log:20: not a line of a profiling log\n"
                                   "lofter-analyze: warning: the.log: and 3 more such lines\n"));
}

TEST(ProfilingLogFile, ALogThatBreaksOffCountsFromTheFirstPlugin) {
    const Outcome outcome = Parse(
        "[1970-01-01 00:00:00.000000 - 1970-01-01 00:00:00.000000] sysboot: never\n"
        "[2026-11-21 20:00:02.000000 - 2026-11-21 20:00:03.000000] sysboot: b\n"
        "[2026-11-21 20:00:01.000000 - 2026-11-21 20:00:02.000000] sysboot: a\n");
    EXPECT_EQ(
        outcome.warnings,
        "lofter-analyze: warning: the.log: the log does not say when lofter began: times count from the first plugin\n"
        "lofter-analyze: warning: the.log: the log does not say when lofter ended\n");
    ASSERT_TRUE(outcome.boot);
    EXPECT_EQ(Shown(*outcome.boot), "never none, b 1000000 2000000, a 0 1000000");
    EXPECT_EQ(outcome.boot->run.end, 2'000'000);
}

TEST(ProfilingLogFile, AClockThatWasSetIsSaid) {
    const Outcome outcome = Parse(
        std::string("[2026-11-21 19:59:59.000000 - 2026-11-21 20:00:01.000000] sysboot: early\n") + kConfiguration);
    EXPECT_EQ(outcome.warnings,
              "lofter-analyze: warning: the.log: the clock was set during the boot: plugin 'early' began before lofter "
              "did by these times\n");
    ASSERT_TRUE(outcome.boot);
    EXPECT_EQ(Shown(*outcome.boot), "early -1000000 1000000");
}

}  // namespace
}  // namespace lofter::analyze
