#include "input/ConsoleCapture.h"

#include <sstream>

#include <gtest/gtest.h>

namespace lofter::analyze {
namespace {

constexpr bool kSerial = false;
constexpr bool kParallel = true;

// Names, separated by blanks; one in brackets is kept out.
std::vector<BootPlugin> Plugins(const std::string& names) {
    std::vector<BootPlugin> plugins;
    std::istringstream words(names);
    for (std::string name; words >> name;) {
        const bool isOut = name.starts_with('[');
        plugins.emplace_back(PluginDescription(PluginKind::Json, isOut ? name.substr(1, name.size() - 2) : name));
        plugins.back().keptOutBy = isOut ? "disabled" : "";
    }
    return plugins;
}

// "hw over, net runs, web -; net failed: why; strange x"
std::string Shown(const CapturedBoot& boot) {
    std::string text;
    for (PluginIndex plugin = 0; plugin < boot.plugins.size(); ++plugin) {
        constexpr const char* kProgress[] = {"-", "runs", "over"};
        text += (text.empty() ? "" : ", ") + boot.plugins[plugin].Name() + ' ' +
                kProgress[static_cast<int>(boot.progress[plugin])];
    }
    for (const CapturedBoot::Failure& failure : boot.failures) {
        text += "; " + boot.plugins[failure.plugin].Name() + " failed: " + failure.reason;
    }
    for (const std::string& stranger : boot.strangers) {
        text += "; strange " + stranger;
    }
    return text;
}

std::string Parse(const std::string& content, const std::string& plugins, bool isParallel = kSerial) {
    return Shown(ParseConsoleCapture(content, Plugins(plugins), isParallel));
}

TEST(ConsoleCapture, TheKernelsLogSaysWhatBeganAndWhatEnded) {
    EXPECT_EQ(
        Parse("[    0.000000] Linux version 6.1.0 (someone@somewhere)\n"
              "[    2.100000] lofter: Activating Lofter plugin hw.\n"
              "[    2.200000] lofter: Lofter plugin hw activated.\n"
              "[    2.200100] lofter: Activating Lofter plugin disk.\r\n"
              "[    2.300000] lofter: Lofter plugin disk activation failed: disk->start() failed: exit status 1\r\n"
              "[    2.300100] lofter: Activating Lofter plugin net.\n",
              "web net disk hw"),
        "web -, net runs, disk over, hw over; disk failed: disk->start() failed: exit status 1");
}

TEST(ConsoleCapture, LinesAreFoundWhateverStandsBeforeThem) {
    EXPECT_EQ(Parse("<6>lofter: Activating Lofter plugin a.\n"
                    "6,339,5140900,-;lofter: Activating Lofter plugin b.\n"
                    "Nov 21 20:41:10 host kernel: [ 1.0] lofter: Activating Lofter plugin c.\n"
                    "Nov 21 20:41:10 host lofter[17]: executing start plugin: d\n"
                    "<30>Nov 21 20:41:10 lofter: executing host profile plugin: e\n"
                    "2026-11-21 20:41:10.123 info lofter: starting execution of plugin: f\n"
                    "[    1.2] \x1b[33mlofter: \x1b[0mActivating Lofter plugin g.\n"
                    "2026-11-21 20:41:10.123 info lofter: exec[ 1.3] lofter: Activating Lofter plugin h.\n"
                    "2026-11-21 20:41:10.123 info other: executing start plugin: i\n"
                    "lofter[: executing start plugin: i\n",
                    "a b c d e f g h i"),
              "a runs, b runs, c runs, d runs, e runs, f runs, g runs, h runs, i -");
}

TEST(ConsoleCapture, TheSameInSeveralLogsCountsOnce) {
    EXPECT_EQ(Parse("lofter: Launching Executor\n"
                    "lofter: starting execution of plugin: a\n"
                    "lofter: executing start plugin: a\n"
                    "kernel: lofter: Activating Lofter plugin a.\n"
                    "lofter: Method invocation failed: a->start() failed: no\n"
                    "lofter: completed execution of plugin: a (took 5 us)\n"
                    "kernel: lofter: Lofter plugin a activation failed: a->start() failed: no\n"
                    "lofter: executing start plugin: b\n"
                    "lofter: unhandled exception whilst processing b: bad: alloc\n"
                    "lofter: executing start plugin: c\n"
                    "lofter: ignoring unknown exception whilst processing c ...\n"
                    "lofter: executing host profile plugin: d\n"
                    "lofter: Method invocation failed: d->apply_host_profile() failed: why\n",
                    "a b c d"),
              "a over, b over, c over, d over; a failed: a->start() failed: no; b failed: bad: alloc; "
              "c failed: unknown exception; d failed: d->apply_host_profile() failed: why");
}

TEST(ConsoleCapture, WithoutAWordAboutEndsTheLastToBeginRuns) {
    const std::string log =
        "host lofter: Launching Executor\n"
        "host lofter: executing start plugin: a\n"
        "host lofter: skipping plugin b (interactive mode request)\n"
        "host lofter: executing start plugin: c\n";
    EXPECT_EQ(Parse(log, "a b c d"), "a over, b over, c runs, d -");
    EXPECT_EQ(Parse(log, "a b c d", kParallel), "a runs, b over, c runs, d -");
}

TEST(ConsoleCapture, OfSeveralBootsTheLastCounts) {
    const std::string first =
        "[ 1.0] lofter: Activating Lofter plugin a.\n"
        "[ 1.1] lofter: Lofter plugin a activation failed: no\n"
        "[ 1.2] lofter: Activating Lofter plugin b.\n";
    EXPECT_EQ(Parse(first + "[ 0.0] Linux version 6.1.0\n[ 1.0] lofter: Activating Lofter plugin c.\n", "a b c"),
              "a -, b -, c runs");
    EXPECT_EQ(Parse(first + "lofter: Launching Executor\n[ 1.0] lofter: Activating Lofter plugin c.\n", "a b c"),
              "a -, b -, c runs");
    EXPECT_EQ(Parse(first + "[ 1.0] lofter: Activating Lofter plugin a.\n", "a b c"), "a runs, b -, c -");
    EXPECT_EQ(Parse(first + "[ 0.0] Linux version 6.1.0\n", "a b c"), "a -, b -, c -");
}

TEST(ConsoleCapture, ARunThatBeginsNoPluginIsNoBoot) {
    EXPECT_EQ(Parse("lofter: Launching Executor\n"
                    "kernel: lofter: Activating Lofter plugin a.\n"
                    "lofter: Launching Executor\n"
                    "motd: this is Linux version 6.1.0\n"
                    "kernel: lofter: Lofter plugin a activated.\n",
                    "a"),
              "a over");
}

TEST(ConsoleCapture, PluginsOfOneNameAreToldApartByTheirOrder) {
    EXPECT_EQ(Parse("lofter: Activating Lofter plugin a.\n"
                    "lofter: Lofter plugin a activated.\n"
                    "lofter: Activating Lofter plugin a.\n",
                    "[a] a a"),
              "a -, a over, a runs");
}

TEST(ConsoleCapture, NamesAreReadAsWhoeverWroteThemSpelledThem) {
    EXPECT_EQ(Parse("lofter: Activating Lofter plugin gr\\xc3\\xb6\\xc3\\x9fe.\n"
                    "lofter: Activating Lofter plugin bell\\x5cx07.\n"
                    "lofter: Activating Lofter plugin back\\slash\\x.\n"
                    "lofter: Activating Lofter plugin a.b..\n",
                    "größe bell\x07 back\\slash\\x a.b."),
              "größe runs, bell\x07 runs, back\\slash\\x runs, a.b. runs");
}

TEST(ConsoleCapture, AnEndWithoutItsBeginningCountsAsBoth) {
    EXPECT_EQ(Parse("lofter: Lofter plugin a activated.\n"
                    "lofter: Lofter plugin a activated.\n"
                    "lofter: Activating Lofter plugin b\n",
                    "a b"),
              "a over, b -");
}

TEST(ConsoleCapture, WhatTheHostDoesNotHaveOrKeepsOutIsTold) {
    EXPECT_EQ(Parse("lofter: Activating Lofter plugin x.\n"
                    "lofter: Activating Lofter plugin out.\n",
                    "a [out]"),
              "a -, out runs, x runs; strange x; strange out");
    const CapturedBoot boot = ParseConsoleCapture("lofter: Activating Lofter plugin out.\n", Plugins("[out]"), kSerial);
    EXPECT_TRUE(boot.plugins.front().Runs());
}

TEST(ConsoleCapture, OtherTextHoldsNoBoot) {
    EXPECT_FALSE(ParseConsoleCapture("hello\nlofter\nlofter: \n", Plugins("a"), kSerial).hasBegun);
    EXPECT_FALSE(ParseConsoleCapture("", Plugins("a"), kSerial).hasBegun);
    EXPECT_TRUE(ParseConsoleCapture("lofter: executing start plugin: a", Plugins("a"), kSerial).hasBegun);
}

}  // namespace
}  // namespace lofter::analyze
