#include "input/DotFile.h"

#include <sstream>

#include <gtest/gtest.h>

#include "input/Errors.h"
#include "support/FailureOf.h"

namespace lofter::analyze {
namespace {

struct Outcome {
    std::vector<BootPlugin> plugins;
    std::string warnings;
};

Outcome Parse(const std::string& content) {
    std::ostringstream warnings;
    std::vector<BootPlugin> plugins = ParseDotFile(content, "tree.dot", warnings);
    return {std::move(plugins), warnings.str()};
}

// "net: requires hw provides link; ..."; a plugin that is kept out is in brackets.
std::string Shown(const std::vector<BootPlugin>& plugins) {
    std::string text;
    for (const BootPlugin& plugin : plugins) {
        text += (text.empty() ? "" : "; ") + (plugin.Runs() ? plugin.Name() : '[' + plugin.Name() + ']') + ':';
        for (const BarrierLink& link : plugin.description.links) {
            text += (link.direction == BarrierLink::Direction::Requires ? " requires " : " provides ") + link.barrier;
        }
    }
    return text;
}

TEST(DotFile, PluginsStandInTheDumpsOrderWithTheirLinks) {
    const Outcome outcome = Parse(
        "digraph g {\n"
        "30 [label=\"net\"];\n"
        "30 -> 12;\n"
        "20 [label=\"hw\"];\n"
        "20 -> 11;\n"
        "11 [label=\"bus\" shape=box];\n"
        "11 -> 30;\n"
        "11 -> 30;\n"
        "12 [label=\"link\" shape=box];\n"
        "}\n");
    EXPECT_EQ(outcome.warnings, "");
    EXPECT_EQ(Shown(outcome.plugins), "net: provides link requires bus requires bus; hw: provides bus");
    EXPECT_EQ(outcome.plugins[1].place.file, "tree.dot");
    EXPECT_EQ(outcome.plugins[1].place.line, 4);
    EXPECT_FALSE(outcome.plugins[1].isKindKnown);
}

TEST(DotFile, WhatHasNoStatementWasKeptOut) {
    const Outcome outcome = Parse(
        "digraph g {\n"
        "20 [label=\"hw\"];\n"
        "11 [label=\"bus\" shape=box];\n"
        "11 -> 18446744073709551615;\n"
        "11 -> 20;\n"
        "12 [label=\"link\" shape=box];\n"
        "12 -> 18446744073709551615;\n"
        "}\n");
    EXPECT_EQ(outcome.warnings, "");
    EXPECT_EQ(Shown(outcome.plugins), "hw: requires bus; [18446744073709551615]: requires bus requires link");
}

TEST(DotFile, NamesMayHoldWhatStatementsAreMadeOf) {
    const Outcome outcome = Parse(
        "digraph g {\n"
        "1 [label=\"a \"quoted\"];\"];\n"
        "2 [label=\"\"];\n"
        "1 -> 3;\n"
        "3 [label=\"b \"c\"\" shape=box];\n"
        "3 -> 2;\n"
        "}\n");
    EXPECT_EQ(outcome.warnings, "");
    EXPECT_EQ(Shown(outcome.plugins), "a \"quoted\"];: provides b \"c\"; : requires b \"c\"");
}

TEST(DotFile, GroupsOfPrioritiesFollowEachOtherThroughTheirPlugins) {
    const Outcome outcome = Parse(
        "digraph g {\n"
        "1 [label=\"a\"];\n"
        "1 -> 10;\n"
        "2 [label=\"b\"];\n"
        "2 -> 20;\n"
        "10 [label=\"_<->_priority_<->_10\" shape=trapezium];\n"
        "10 -> 20;\n"
        "10 -> 2;\n"
        "20 [label=\"_<->_priority_<->_20\" shape=trapezium];\n"
        "}\n");
    EXPECT_EQ(outcome.warnings, "");
    EXPECT_EQ(Shown(outcome.plugins),
              "a: provides _<->_priority_<->_10; b: provides _<->_priority_<->_20 requires _<->_priority_<->_10");
}

TEST(DotFile, ABadLineIsLostAlone) {
    const Outcome outcome = Parse(
        "digraph g {\n"
        "node [shape=box];\n"
        "1 [label=\"a\"];\n"
        "1 [label=\"again\"];\n"
        "1 -> 2;\n"
        "2 [label=\"b\"];\n"
        "1 -> 10\n"
        "1 -> 10;\n"
        "99999999999999999999 [label=\"far\"];\n"
        "3 [label=\"c\" shape=circle\n"
        "10 [label=\"x\" shape=box];\n");
    EXPECT_EQ(outcome.warnings,
              "lofter-analyze: warning: tree.dot:2: not a line of a dependency dump\n"
              "lofter-analyze: warning: tree.dot:4: not a line of a dependency dump\n"
              "lofter-analyze: warning: tree.dot:7: not a line of a dependency dump\n"
              "lofter-analyze: warning: tree.dot:9: not a line of a dependency dump\n"
              "lofter-analyze: warning: tree.dot:10: not a line of a dependency dump\n"
              "lofter-analyze: warning: tree.dot: the dump breaks off\n"
              "lofter-analyze: warning: tree.dot:5: not a line of a dependency dump\n");
    EXPECT_EQ(Shown(outcome.plugins), "a: provides x; b:");
}

TEST(DotFile, AnotherFileIsNoDump) {
    EXPECT_EQ(test::FailureOf<InputError>([] { Parse("hello\n"); }), "tree.dot: not a dependency dump");
    EXPECT_EQ(test::FailureOf<InputError>([] { Parse(""); }), "tree.dot: not a dependency dump");
}

TEST(DotFile, AnEmptyDumpHoldsNoPlugins) {
    EXPECT_TRUE(Parse("digraph g {\n}\n").plugins.empty());
}

}  // namespace
}  // namespace lofter::analyze
