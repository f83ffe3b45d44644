#include "report/Dot.h"

#include <algorithm>
#include <sstream>

#include <gtest/gtest.h>

#include "support/TestBoot.h"

namespace lofter::analyze {
namespace {

using test::BootOf;

constexpr char kHost[] =
    "net: requires disk clock provides link ran 10 35\n"
    "hw: provides disk spare ran 0 10\n"
    "ntp: requires link disk\n"
    "ssh: requires link provides shell out";

std::string Written(const Boot& boot, DotView view = {}) {
    if (view.plugins.empty()) {
        view.plugins.assign(boot.plugins.size(), true);
    }
    std::ostringstream output;
    WriteDot(boot, view, output);
    return output.str();
}

// The statements between the settings and the legend.
std::string Statements(const Boot& boot, const DotView& view = {}) {
    const std::string written = Written(boot, view);
    const std::size_t begin = written.find("fontsize=10];\n") + 14;
    return written.substr(begin, written.find("  legend [") - begin);
}

TEST(Dot, IsTheGraphByNamesWithItsLegend) {
    EXPECT_EQ(Written(BootOf(kHost)),
              R"(digraph boot {
  graph [fontname="sans-serif"];
  node [fontname="sans-serif"];
  edge [fontname="sans-serif", fontsize=10];
  "plugin hw" [label="hw\n10us"];
  "plugin net" [label="net\n25us"];
  "plugin ntp" [label="ntp\ndid not run"];
  "plugin ssh" [label="ssh\nkept out", style="dashed", color="#808080", fontcolor="#808080"];
  "barrier clock" [shape=box, label="clock", style="filled", fillcolor="#ffe3b3", color="#b35900"];
  "barrier disk" [shape=box, label="disk"];
  "barrier link" [shape=box, label="link"];
  "barrier shell" [shape=box, label="shell"];
  "barrier spare" [shape=box, label="spare"];
  "barrier clock" -> "plugin net";
  "plugin hw" -> "barrier disk";
  "barrier disk" -> "plugin net";
  "barrier disk" -> "plugin ntp";
  "plugin net" -> "barrier link";
  "barrier link" -> "plugin ntp";
  "barrier link" -> "plugin ssh";
  "plugin ssh" -> "barrier shell";
  "plugin hw" -> "barrier spare";
  legend [shape=plain, label=<<table border="0" cellborder="1" cellspacing="0" cellpadding="4">
    <tr><td>ellipse</td><td align="left">plugin, how long it ran</td></tr>
    <tr><td>box</td><td align="left">barrier: opens when all plugins in front of it have ended</td></tr>
    <tr><td>arrow</td><td align="left">leads to what waits</td></tr>
    <tr><td bgcolor="#ffe3b3">box</td><td align="left">barrier that nobody provides</td></tr>
    <tr><td style="dashed">ellipse</td><td align="left">plugin that is kept out: counts as run</td></tr>
  </table>>];
}
)");
}

TEST(Dot, FoldsBarriersIntoTheNamesOfLinks) {
    EXPECT_EQ(Statements(BootOf(kHost), {{}, false, true}),
              R"(  "plugin hw" [label="hw\n10us"];
  "plugin net" [label="net\n25us"];
  "plugin ntp" [label="ntp\ndid not run"];
  "plugin ssh" [label="ssh\nkept out", style="dashed", color="#808080", fontcolor="#808080"];
  "barrier clock" [shape=box, label="clock", style="filled", fillcolor="#ffe3b3", color="#b35900"];
  "barrier clock" -> "plugin net";
  "plugin hw" -> "plugin net" [label="disk"];
  "plugin hw" -> "plugin ntp" [label="disk"];
  "plugin net" -> "plugin ntp" [label="link"];
  "plugin net" -> "plugin ssh" [label="link"];
)");
}

TEST(Dot, TheLegendHasWhatTheGraphHas) {
    const std::string folded = Written(BootOf("a: provides x\nb: requires x"), {{}, false, true});
    EXPECT_EQ(folded.substr(folded.find("  legend [")),
              R"(  legend [shape=plain, label=<<table border="0" cellborder="1" cellspacing="0" cellpadding="4">
    <tr><td>ellipse</td><td align="left">plugin</td></tr>
    <tr><td>arrow</td><td align="left">leads to what waits, with the barrier's name</td></tr>
  </table>>];
}
)");
    const std::string loop = Written(BootOf("a: requires y x provides x"), {{}, false, true});
    EXPECT_EQ(loop.find("barrier: opens when"), std::string::npos);
    EXPECT_NE(loop.find(R"(<tr><td bgcolor="#ffe3b3">box</td><td align="left">barrier that nobody provides</td></tr>)"),
              std::string::npos);
    EXPECT_NE(
        loop.find(
            R"(<tr><td bgcolor="#cc0000"> </td><td align="left">plugins that wait for each other for ever</td></tr>)"),
        std::string::npos);
}

TEST(Dot, APluginThatIsKeptOutMissesNothing) {
    EXPECT_EQ(Statements(BootOf("a: requires x out")),
              R"(  "plugin a" [label="a\nkept out", style="dashed", color="#808080", fontcolor="#808080"];
  "barrier x" [shape=box, label="x"];
  "barrier x" -> "plugin a";
)");
}

TEST(Dot, SeveralBarriersBetweenTwoPluginsAreOneLink) {
    EXPECT_EQ(Statements(BootOf("a: provides y x\nb: requires x y"), {{}, false, true}),
              R"(  "plugin a" [label="a"];
  "plugin b" [label="b"];
  "plugin a" -> "plugin b" [label="x\ny"];
)");
}

TEST(Dot, MarksLoops) {
    EXPECT_EQ(Statements(BootOf("a: requires y provides x\nb: requires x provides y z\nc: requires z")),
              R"(  "plugin a" [label="a", color="#cc0000", fontcolor="#cc0000", penwidth=2];
  "plugin b" [label="b", color="#cc0000", fontcolor="#cc0000", penwidth=2];
  "plugin c" [label="c"];
  "barrier x" [shape=box, label="x", color="#cc0000", fontcolor="#cc0000", penwidth=2];
  "barrier y" [shape=box, label="y", color="#cc0000", fontcolor="#cc0000", penwidth=2];
  "barrier z" [shape=box, label="z"];
  "plugin a" -> "barrier x" [color="#cc0000", fontcolor="#cc0000", penwidth=2];
  "barrier x" -> "plugin b" [color="#cc0000", fontcolor="#cc0000", penwidth=2];
  "plugin b" -> "barrier y" [color="#cc0000", fontcolor="#cc0000", penwidth=2];
  "barrier y" -> "plugin a" [color="#cc0000", fontcolor="#cc0000", penwidth=2];
  "plugin b" -> "barrier z";
  "barrier z" -> "plugin c";
)");
}

TEST(Dot, OfLoopsOnlyLeavesOutWhatIsBesideThem) {
    const Boot boot = BootOf(
        "a: requires y nowhere provides x spare\n"
        "b: requires x provides y z\n"
        "c: requires z\n"
        "s: requires z s provides s");
    EXPECT_EQ(Statements(boot, {{}, true, true}),
              R"(  "plugin a" [label="a", color="#cc0000", fontcolor="#cc0000", penwidth=2];
  "plugin b" [label="b", color="#cc0000", fontcolor="#cc0000", penwidth=2];
  "plugin s" [label="s", color="#cc0000", fontcolor="#cc0000", penwidth=2];
  "plugin a" -> "plugin b" [label="x", color="#cc0000", fontcolor="#cc0000", penwidth=2];
  "plugin b" -> "plugin a" [label="y", color="#cc0000", fontcolor="#cc0000", penwidth=2];
  "plugin s" -> "plugin s" [label="s", color="#cc0000", fontcolor="#cc0000", penwidth=2];
)");
    const std::string whole = Statements(boot, {{}, true, false});
    EXPECT_NE(whole.find("\"barrier x\""), std::string::npos);
    EXPECT_EQ(whole.find("nowhere"), std::string::npos);
    EXPECT_EQ(whole.find("spare"), std::string::npos);
    EXPECT_EQ(whole.find("barrier z"), std::string::npos);
}

TEST(Dot, OfAPartHasTheBarriersWithinIt) {
    const Boot boot = BootOf(
        "hw: provides disk power\n"
        "net: requires disk clock provides link unused\n"
        "ntp: requires link\n"
        "fan: requires power");
    EXPECT_EQ(Statements(boot, {{true, true, false, false}, false, false}),
              R"(  "plugin hw" [label="hw"];
  "plugin net" [label="net"];
  "barrier clock" [shape=box, label="clock", style="filled", fillcolor="#ffe3b3", color="#b35900"];
  "barrier disk" [shape=box, label="disk"];
  "barrier unused" [shape=box, label="unused"];
  "barrier clock" -> "plugin net";
  "plugin hw" -> "barrier disk";
  "barrier disk" -> "plugin net";
  "plugin net" -> "barrier unused";
)");
}

TEST(Dot, EveryNodeHasANameOfItsOwn) {
    EXPECT_EQ(Statements(BootOf("net: requires x\nnet:\nnet(2):\n\x01: ran 0 5\n\\x01:")),
              R"dot(  "plugin \\x01" [label="\\x01\n5us"];
  "plugin \\x01 (2)" [label="\\x01\ndid not run"];
  "plugin net" [label="net\ndid not run"];
  "plugin net (2)" [label="net\ndid not run"];
  "plugin net(2)" [label="net(2)\ndid not run"];
  "barrier x" [shape=box, label="x", style="filled", fillcolor="#ffe3b3", color="#b35900"];
  "barrier x" -> "plugin net";
)dot");
}

TEST(Dot, NamesAreEscaped) {
    EXPECT_EQ(Statements(BootOf("a\"b\\&lt;: ran 0 5")),
              "  \"plugin a\\\"b\\\\&amp;lt;\" [label=\"a\\\"b\\\\&amp;lt;\\n5us\"];\n");
}

TEST(Dot, APluginThatTheOperatorSkippedSaysSo) {
    EXPECT_EQ(Statements(BootOf("a: began 5")), "  \"plugin a\" [label=\"a\\nskipped\"];\n");
}

TEST(Dot, ABarrierOfVeryManyLinksStaysABarrierWhenFolded) {
    std::string text;
    for (int number = 0; number < 101; ++number) {
        text += "p" + std::to_string(number) + ": provides x\nr" + std::to_string(number) + ": requires x\n";
    }
    const std::string folded = Statements(BootOf(text), {{}, false, true});
    EXPECT_EQ(std::count(folded.begin(), folded.end(), '>'), 202);
    EXPECT_NE(folded.find("\"plugin p100\" -> \"barrier x\";\n"), std::string::npos);
}

}  // namespace
}  // namespace lofter::analyze
