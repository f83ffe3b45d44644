#include "input/LogMatch.h"

#include <sstream>

#include <gtest/gtest.h>

namespace lofter::analyze {
namespace {

BootPlugin PluginNamed(const std::string& name, const std::string& barrier = "") {
    PluginDescription description(PluginKind::Json, name);
    if (!barrier.empty()) {
        description.Provide(barrier);
    }
    return BootPlugin(std::move(description));
}

BootPlugin KeptOut(const std::string& name) {
    BootPlugin plugin = PluginNamed(name);
    plugin.keptOutBy = "disabled";
    return plugin;
}

LoggedPlugin Ran(const std::string& name, Microseconds start, Microseconds end) {
    return {name, 7, Timing{start, end}};
}

struct Outcome {
    std::string plugins;  // "net 10-20, [disk], web"; brackets: kept out
    std::string warnings;
};

std::string Shown(const std::vector<BootPlugin>& plugins) {
    std::string text;
    for (const BootPlugin& plugin : plugins) {
        text += text.empty() ? "" : ", ";
        text += plugin.Runs() ? plugin.Name() : '[' + plugin.Name() + ']';
        if (plugin.timing) {
            text += ' ' + std::to_string(plugin.timing->start) + '-' + std::to_string(*plugin.timing->end);
        }
    }
    return text;
}

Outcome Match(std::vector<BootPlugin> plugins, std::vector<LoggedPlugin> logged, NodeOrder order = NodeOrder::OfLog) {
    std::ostringstream warnings;
    const LoggedBoot log{std::move(logged), {}};
    const std::string shown = Shown(MatchLog(std::move(plugins), log, order, "the.log", warnings));
    return {shown, warnings.str()};
}

TEST(LogMatch, TheLogsOrderIsThatOfTheNodes) {
    const Outcome outcome = Match({PluginNamed("a"), KeptOut("b"), PluginNamed("c")}, {Ran("c", 1, 2), Ran("a", 2, 5)});
    EXPECT_EQ(outcome.plugins, "c 1-2, a 2-5, [b]");
    EXPECT_EQ(outcome.warnings, "");
}

TEST(LogMatch, ADumpKeepsItsOrder) {
    const Outcome outcome =
        Match({PluginNamed("a"), PluginNamed("c")}, {Ran("c", 1, 2), Ran("a", 2, 5)}, NodeOrder::OfPlugins);
    EXPECT_EQ(outcome.plugins, "a 2-5, c 1-2");
}

TEST(LogMatch, PluginsOfOneNameAreMatchedInTheirOrder) {
    const Outcome outcome = Match({PluginNamed("net", "first"), PluginNamed("hw"), PluginNamed("net", "second")},
                                  {Ran("net", 1, 2), Ran("net", 3, 4), Ran("hw", 0, 1)});
    EXPECT_EQ(outcome.plugins, "net 1-2, net 3-4, hw 0-1");
    EXPECT_EQ(outcome.warnings, "");
}

TEST(LogMatch, OfOneNameThoseThatRunComeFirst) {
    const Outcome outcome = Match({KeptOut("net"), PluginNamed("net")}, {Ran("net", 1, 2)});
    EXPECT_EQ(outcome.plugins, "net 1-2, [net]");
    EXPECT_EQ(outcome.warnings, "");
}

TEST(LogMatch, WhatTheOptionsKeepOutHasNoTimes) {
    const Outcome outcome = Match({KeptOut("net"), PluginNamed("hw")}, {Ran("hw", 0, 1), Ran("net", 1, 2)});
    EXPECT_EQ(outcome.plugins, "hw 0-1, [net]");
    EXPECT_EQ(outcome.warnings,
              "lofter-analyze: warning: the.log: the log has plugins that these options keep out: 'net'\n");
}

TEST(LogMatch, APluginThatOnlyTheLogHasIsThereAllTheSame) {
    const Outcome outcome = Match({PluginNamed("hw")}, {Ran("old", 0, 1), Ran("hw", 1, 2)});
    EXPECT_EQ(outcome.plugins, "old 0-1, hw 1-2");
    EXPECT_EQ(outcome.warnings,
              "lofter-analyze: warning: the.log: the log has plugins that are not known otherwise: 'old'\n");
    EXPECT_EQ(Match({PluginNamed("hw")}, {Ran("old", 0, 1), Ran("hw", 1, 2)}, NodeOrder::OfPlugins).plugins,
              "hw 1-2, old 0-1");
}

TEST(LogMatch, APluginThatTheLogLacksComesLast) {
    const Outcome outcome = Match({PluginNamed("a"), PluginNamed("b"), PluginNamed("c"), PluginNamed("d"),
                                   PluginNamed("e"), PluginNamed("f"), PluginNamed("g"), PluginNamed("hw")},
                                  {Ran("hw", 0, 1)});
    EXPECT_EQ(outcome.plugins, "hw 0-1, a, b, c, d, e, f, g");
    EXPECT_EQ(outcome.warnings,
              "lofter-analyze: warning: the.log: the log lacks plugins that should run: 'a', 'b', 'c', 'd', 'e' and 2 "
              "more\n");
}

}  // namespace
}  // namespace lofter::analyze
