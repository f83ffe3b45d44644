#include "analysis/GraphFindings.h"

#include <gtest/gtest.h>

#include "support/TestBoot.h"

namespace lofter::analyze {
namespace {

using test::BootOf;

// "rule plugin: text", a line each, without those that a test is not about.
std::string Found(const std::string& boot, const std::string& rule, GraphSource source = GraphSource::Host) {
    std::string text;
    for (const Finding& finding : FindInGraph(BootOf(boot), source)) {
        if (finding.rule == rule) {
            text += std::string(NameOf(finding.severity)) + " " + finding.place.file + " " + finding.plugin + ": " +
                    finding.text + "\n";
        }
    }
    return text;
}

TEST(GraphFindings, HaveALoopForEveryPartThatHangsTogether) {
    EXPECT_EQ(Found("b: requires x provides y\n"
                    "a: requires y provides x\n"
                    "c: requires y z provides z\n",
                    "cycle"),
              "error a.json a: wait for each other for ever: a -[x]-> b -[y]-> a\n"
              "error c.json c: waits for itself for ever: c -[z]-> c\n");
}

TEST(GraphFindings, NameAllWhoRequireWhatNobodyProvides) {
    const std::string boot =
        "a: requires x y\n"
        "b: requires x out\n"
        "c: requires x\n"
        "d: requires x\n"
        "e: requires z out\n"
        "f: provides y out\n";
    EXPECT_EQ(Found(boot, "missing-provider"),
              "warning a.json a: no plugin provides the barrier \"x\", which a, c and d require\n");
    EXPECT_EQ(Found(boot, "missing-provider", GraphSource::Dump),
              "note a.json a: no plugin provides the barrier \"x\", which a, c and d require\n");
}

TEST(GraphFindings, NameBarriersThatNobodyRequiresOnceEach) {
    EXPECT_EQ(Found("a: provides x y\n"
                    "b: provides x\n"
                    "c: requires y out\n",
                    "unused-barrier"),
              "note a.json a: no plugin requires the barrier \"x\"\n");
}

TEST(GraphFindings, NameEveryLaterPluginOfANameThatRuns) {
    EXPECT_EQ(Found("a:\n"
                    "b:\n"
                    "a:\n"
                    "b: out\n"
                    "a:\n",
                    "duplicate-name"),
              "warning a.json a: another plugin is called \"a\", too: a.json\n"
              "warning a.json a: another plugin is called \"a\", too: a.json\n");
}

TEST(GraphFindings, SayWhatKeepsAPluginOut) {
    EXPECT_EQ(Found("a: out\nb:\n", "kept-out"), "note a.json a: does not run: the test\n");
}

}  // namespace
}  // namespace lofter::analyze
