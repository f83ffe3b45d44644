#include "report/SvgChart.h"

#include <sstream>

#include <gtest/gtest.h>

#include "support/TestBoot.h"

namespace lofter::analyze {
namespace {

using test::BootOf;

std::string PictureOf(const Boot& boot) {
    std::ostringstream output;
    WriteSvgChart(boot, FindCourse(boot), output);
    return output.str();
}

// Without the style sheet, the headline, the legend and the axis.
std::string LanesAndRowsOf(const Boot& boot) {
    const std::string picture = PictureOf(boot);
    return picture.substr(picture.rfind('\n', picture.find(">thread 1<")) + 1);
}

std::size_t Count(const std::string& text, const std::string& piece) {
    std::size_t count = 0;
    for (std::size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1)) {
        ++count;
    }
    return count;
}

TEST(SvgChart, HasALaneForEachThreadAndARowForEachPlugin) {
    EXPECT_EQ(LanesAndRowsOf(BootOf("hw: provides disk ran 1000 4000\n"
                                    "net: requires disk ran 4500 9000\n"
                                    "ntp: ran 2000 3000")),
              R"(<text class="pale" x="142" y="123" text-anchor="end">thread 1</text>
<g class="unit crit"><title>hw: 3ms
from 1ms to 4ms
waited 1ms for a free thread
on the critical chain</title>
<rect class="bar" x="236" y="109" width="258" height="20"/>
<text class="on" x="240" y="123">hw</text>
</g>
<g class="unit crit"><title>net: 4.5ms
from 4.5ms to 9ms
waited for disk, opened by hw at 4ms
waited 500us for a free thread
on the critical chain</title>
<rect class="bar" x="537" y="109" width="387" height="20"/>
<text class="on" x="541" y="123">net</text>
</g>
<text class="pale" x="142" y="149" text-anchor="end">thread 2</text>
<g class="unit"><title>ntp: 1ms
from 2ms to 3ms
waited 2ms for a free thread</title>
<rect class="bar" x="322" y="135" width="86" height="20"/>
<text class="on" x="326" y="149">ntp</text>
</g>
<path class="way" d="M494 192 V220.5 H537"/>
<g class="unit crit"><title>hw: 3ms
from 1ms to 4ms
waited 1ms for a free thread
on the critical chain</title>
<text class="name" x="142" y="190" text-anchor="end">hw</text>
<rect class="wait" x="150" y="181" width="86" height="11"/>
<rect class="bar" x="236" y="181" width="258" height="11"/>
<text class="pale" x="498" y="190">3ms</text>
</g>
<g class="unit"><title>ntp: 1ms
from 2ms to 3ms
waited 2ms for a free thread</title>
<text class="name" x="142" y="207" text-anchor="end">ntp</text>
<rect class="wait" x="150" y="198" width="172" height="11"/>
<rect class="bar" x="322" y="198" width="86" height="11"/>
<text class="pale" x="412" y="207">1ms</text>
</g>
<g class="unit crit"><title>net: 4.5ms
from 4.5ms to 9ms
waited for disk, opened by hw at 4ms
waited 500us for a free thread
on the critical chain</title>
<text class="name" x="142" y="224" text-anchor="end">net</text>
<rect class="wait" x="494" y="215" width="43" height="11"/>
<rect class="bar" x="537" y="215" width="387" height="11"/>
<text class="pale" x="928" y="224">4.5ms</text>
</g>
</svg>
)");
}

TEST(SvgChart, SaysHowManyRanAndHowManyDidNot) {
    EXPECT_NE(PictureOf(BootOf("a: ran 0 10\nb: ran 10 30\nc:\nd: out")).find(">30us: 2 plugins, 1 did not run</text>"),
              std::string::npos);
    EXPECT_NE(PictureOf(BootOf("a: ran 0 10")).find(">10us: 1 plugin</text>"), std::string::npos);
    EXPECT_NE(PictureOf(BootOf("a: ran 0 10\nb: ran 5 30")).find(">30us: 2 plugins, up to 2 at once</text>"),
              std::string::npos);
}

TEST(SvgChart, IsMadeForLightAndDark) {
    const std::string picture = PictureOf(BootOf("a: ran 0 10"));
    EXPECT_NE(picture.find("@media (prefers-color-scheme:dark){"), std::string::npos);
}

TEST(SvgChart, NamesAreNoMarkup) {
    const std::string picture = PictureOf(BootOf("<b>&\x01\xff\xef\xbf\xbf: ran 0 10"));
    EXPECT_NE(picture.find("&lt;b&gt;&amp;\\x01\\xff\\xef\\xbf\\xbf"), std::string::npos);
    EXPECT_EQ(picture.find("<b>"), std::string::npos);
    EXPECT_EQ(picture.find('\xff'), std::string::npos);
    EXPECT_EQ(picture.find("\xef\xbf\xbf"), std::string::npos);
}

TEST(SvgChart, LongNamesAreWholeOnlyWhereThePointerRests) {
    const std::string name = "a-plugin-with-a-name-of-many-letters";
    const std::string picture = PictureOf(BootOf(name + ": ran 0 10\nb: ran 10 100000"));
    EXPECT_NE(picture.find(">a-plugin-with-a-name\u2026</text>"), std::string::npos);
    EXPECT_EQ(Count(picture, "<title>" + name + ": 10us"), 2U);
    EXPECT_EQ(Count(picture, name), 2U);
}

TEST(SvgChart, APluginThatTheOperatorSkippedSaysSo) {
    const std::string picture = PictureOf(BootOf("a: ran 0 10\ns: began 12"));
    EXPECT_EQ(Count(picture, "<title>s: skipped by the operator\nfrom 12us\nwaited 12us for a free thread</title>"),
              2U);
    EXPECT_NE(picture.find(">skipped</text>"), std::string::npos);
}

TEST(SvgChart, BeginsBeforeLofterWhenTheClockWasSetMeanwhile) {
    const std::string picture = PictureOf(BootOf("a: ran -30 -10\nb: ran -10 5"));
    EXPECT_NE(picture.find(">-30us</text>"), std::string::npos);
    EXPECT_NE(picture.find(">0us</text>"), std::string::npos);
    EXPECT_EQ(picture.find("width=\"-"), std::string::npos);
}

TEST(SvgChart, OfThousandsOfPluginsTheSlowestHaveRows) {
    std::string text;
    for (int number = 0; number < 1200; ++number) {
        const int start = number * 1000;
        text += "p" + std::to_string(number) + ": ran " + std::to_string(start) + ' ' +
                std::to_string(start + number % 2 * 500 + 100 + number / 100) + '\n';
    }
    const std::string picture = PictureOf(BootOf(text));
    EXPECT_EQ(Count(picture, "class=\"bar\""), 1200U + 1000U + 2U);
    EXPECT_NE(picture.find(">the 1000 slowest plugins</text>"), std::string::npos);
    EXPECT_EQ(picture.find(">p0</text>"), std::string::npos);
    EXPECT_NE(picture.find(">p1</text>"), std::string::npos);
    EXPECT_EQ(Count(picture, ">200ms</text>"), 25U) << "the axis is repeated after every 40 rows";
}

TEST(SvgChart, AllHaveRowsUpToAThousand) {
    std::string text;
    for (int number = 0; number < 1000; ++number) {
        text +=
            "p" + std::to_string(number) + ": ran " + std::to_string(number) + ' ' + std::to_string(number + 1) + '\n';
    }
    const std::string picture = PictureOf(BootOf(text));
    EXPECT_EQ(Count(picture, "class=\"bar\""), 1000U + 1000U + 2U);
    EXPECT_EQ(picture.find("slowest"), std::string::npos);
}

// Sizes from a microsecond to a century.
TEST(SvgChart, TheAxisHasAHandfulOfTicksWhateverTheLength) {
    for (Microseconds length = 1; length < 4'000'000'000'000'000; length *= 3) {
        const std::string picture = PictureOf(BootOf("a: ran 0 " + std::to_string(length)));
        const std::size_t ticks = Count(picture, "<line ");
        EXPECT_GE(ticks, 2U) << length;
        EXPECT_LE(ticks, 11U) << length;
    }
}

}  // namespace
}  // namespace lofter::analyze
