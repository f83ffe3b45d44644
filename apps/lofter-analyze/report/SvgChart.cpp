#include "report/SvgChart.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string>
#include <string_view>

#include "report/Text.h"

namespace lofter::analyze {

namespace {

// All lengths are in pixels.
constexpr double kWidth = 1000;
constexpr double kMargin = 12;
constexpr double kAxisLeft = 150;           // names are on its left
constexpr double kAxisRight = kWidth - 76;  // durations of the last bars are on its right
constexpr double kLegendTop = 48;
constexpr double kLanesTop = 106;
constexpr double kLaneHeight = 26;
constexpr double kRowHeight = 17;
constexpr double kSectionGap = 20;
constexpr double kBarGap = 3;
constexpr double kNarrowest = 2;    // what took no time is seen all the same
constexpr double kLetter = 6.4;     // of the small font, an average
constexpr std::size_t kBlock = 40;  // so many rows, then the times again
constexpr std::size_t kMostRows = 1000;
constexpr std::size_t kLongestName = 20;

constexpr std::string_view kStyle = R"(<style>
svg{background:#fff}
.paper{fill:#fff}
text{fill:#24292f;font-size:11px}
.head{font-size:17px;font-weight:600}
.pale{fill:#57606a}
.grid{stroke:#d0d7de;stroke-width:1}
.bar{fill:#5b8fc7;stroke:#fff;stroke-width:.5}
.wait{fill:#cfe0f2}
.on{fill:#fff}
.crit .bar{fill:#d4582a}
.crit .wait{fill:#f6d5c5}
.crit .name{font-weight:600;fill:#a63d12}
.way{fill:none;stroke:#d4582a;stroke-width:1}
.unit:hover .bar{stroke:#24292f;stroke-width:1.5}
@media (prefers-color-scheme:dark){
svg{background:#0d1117}
.paper{fill:#0d1117}
text{fill:#e6edf3}
.pale{fill:#8b949e}
.grid{stroke:#30363d}
.bar{fill:#4a80bd;stroke:#0d1117}
.wait{fill:#1f3a57}
.on{fill:#fff}
.crit .bar{fill:#d4582a}
.crit .wait{fill:#5a2a17}
.crit .name{fill:#ff9b72}
.unit:hover .bar{stroke:#e6edf3}
}
</style>
)";

// A name or a text as the content of an element: what XML gives a meaning of its own, and what it cannot hold.
std::string Xml(std::string_view text) {
    std::string xml;
    for (std::size_t index = 0; index < text.size(); ++index) {
        const std::string_view rest = text.substr(index);
        if (rest.starts_with("\xef\xbf\xbe") || rest.starts_with("\xef\xbf\xbf")) {  // U+FFFE and U+FFFF
            xml += rest[2] == '\xbe' ? "\\xef\\xbf\\xbe" : "\\xef\\xbf\\xbf";
            index += 2;
        } else if (text[index] == '&') {
            xml += "&amp;";
        } else if (text[index] == '<') {
            xml += "&lt;";
        } else if (text[index] == '>') {
            xml += "&gt;";
        } else {
            xml += text[index];
        }
    }
    return xml;
}

// A length or a place, to a tenth of a pixel.
std::string Pixels(double value) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f", value);
    std::string pixels = text.data();
    if (pixels.ends_with(".0")) {
        pixels.erase(pixels.size() - 2);
    }
    return pixels;
}

bool ContinuesSequence(char byte) {
    return (byte & 0xc0) == 0x80;
}

std::size_t LettersOf(std::string_view text) {
    return text.size() - static_cast<std::size_t>(std::count_if(text.begin(), text.end(), ContinuesSequence));
}

std::string Abbreviated(std::string_view name) {
    if (LettersOf(name) <= kLongestName) {
        return std::string(name);
    }
    std::size_t bytes = 0;
    for (std::size_t letters = 0; letters < kLongestName || ContinuesSequence(name[bytes]); ++bytes) {
        letters += ContinuesSequence(name[bytes]) ? 0 : 1;
    }
    return std::string(name.substr(0, bytes)) + "\u2026";
}

// 1, 2 or 5 of some power of ten: what puts at most ten ticks on the axis.
Microseconds TickStep(Microseconds span) {
    constexpr Microseconds kMostTicks = 10;
    Microseconds step = 1;
    for (int turn = 0; span / step > kMostTicks; ++turn) {
        step = turn % 3 == 1 ? step / 2 * 5 : step * 2;
    }
    return step;
}

class Picture {
  public:
    Picture(const Boot& pictured, const Course& itsCourse, std::ostream& stream)
        : boot(pictured),
          course(itsCourse),
          output(stream),
          span(std::max<Microseconds>(course.end - course.begin, 1)) {
        ChooseRows();
    }

    void Write();

  private:
    void ChooseRows();
    double At(Microseconds time) const;
    double RowsTop() const;
    double Height() const;

    std::string Headline() const;
    std::string Hover(PluginIndex index) const;
    void WriteText(double x, double y, std::string_view style, std::string_view text, bool endsHere = false);
    void WriteBar(std::string_view style, double from, double to, double top, double height);
    void WriteLegend();
    void WriteAxis();
    void WriteLane(std::size_t lane);
    void WriteRow(std::size_t row);
    void WriteWay();
    void BeginUnit(PluginIndex index);

    const Boot& boot;
    const Course& course;
    std::ostream& output;
    Microseconds span;
    std::vector<PluginIndex> rows;
    bool isEveryRowShown = true;
    std::vector<double> rowTops;  // by plugin; 0 for those without a row
};

// All that started, by start; of too many the slowest.
void Picture::ChooseRows() {
    for (const std::vector<PluginIndex>& lane : course.lanes) {
        rows.insert(rows.end(), lane.begin(), lane.end());
    }
    if (rows.size() > kMostRows) {
        const auto slower = [this](PluginIndex left, PluginIndex right) {
            const Microseconds first = TimeTaken(boot.plugins[left]);
            const Microseconds second = TimeTaken(boot.plugins[right]);
            return first != second ? first > second : left < right;
        };
        std::nth_element(rows.begin(), rows.begin() + kMostRows, rows.end(), slower);
        rows.resize(kMostRows);
        isEveryRowShown = false;
    }
    std::sort(rows.begin(), rows.end(), [this](PluginIndex left, PluginIndex right) {
        const Microseconds first = boot.plugins[left].timing->start;
        const Microseconds second = boot.plugins[right].timing->start;
        return first != second ? first < second : left < right;
    });
    rowTops.resize(boot.plugins.size());
    for (std::size_t row = 0; row < rows.size(); ++row) {
        const std::size_t gaps = row / kBlock;
        rowTops[rows[row]] = RowsTop() + static_cast<double>(row + gaps) * kRowHeight;
    }
}

double Picture::At(Microseconds time) const {
    return kAxisLeft + (kAxisRight - kAxisLeft) * static_cast<double>(time - course.begin) / static_cast<double>(span);
}

double Picture::RowsTop() const {
    return kLanesTop + static_cast<double>(course.lanes.size()) * kLaneHeight + kSectionGap;
}

double Picture::Height() const {
    const std::size_t gaps = rows.empty() ? 0 : (rows.size() - 1) / kBlock;
    return RowsTop() + static_cast<double>(rows.size() + gaps) * kRowHeight + kMargin;
}

std::string Picture::Headline() const {
    std::size_t ran = 0;
    std::size_t didNotRun = 0;
    for (const BootPlugin& plugin : boot.plugins) {
        ran += plugin.HasRun() ? 1 : 0;
        didNotRun += plugin.Runs() && !plugin.HasRun() ? 1 : 0;
    }
    std::string text = ShownDuration(course.end) + ": " + std::to_string(ran) + (ran == 1 ? " plugin" : " plugins");
    if (course.lanes.size() > 1) {
        text += ", up to " + std::to_string(course.lanes.size()) + " at once";
    }
    if (didNotRun > 0) {
        text += ", " + std::to_string(didNotRun) + " did not run";
    }
    return text;
}

std::string Picture::Hover(PluginIndex index) const {
    const BootPlugin& plugin = boot.plugins[index];
    std::string text = Shown(plugin.Name());
    text += plugin.timing->end ? ": " + ShownDuration(TimeTaken(plugin)) : ": skipped by the operator";
    text += "\nfrom " + ShownDuration(plugin.timing->start);
    if (plugin.timing->end) {
        text += " to " + ShownDuration(*plugin.timing->end);
    }
    if (const std::optional<Wait>& wait = course.waits[index]; wait && wait->barrier && wait->opener) {
        text += "\nwaited for " + Shown(boot.barriers[*wait->barrier].name) + ", opened by " +
                Shown(boot.plugins[*wait->opener].Name()) + " at " + ShownDuration(wait->ready);
    }
    if (const std::optional<Wait>& wait = course.waits[index]; wait && wait->wait > 0) {
        text += "\nwaited " + ShownDuration(wait->wait) + " for a free thread";
    }
    return course.isCritical[index] ? text + "\non the critical chain" : text;
}

void Picture::WriteText(double x, double y, std::string_view style, std::string_view text, bool endsHere) {
    output << R"(<text class=")" << style << R"(" x=")" << Pixels(x) << R"(" y=")" << Pixels(y) << '"'
           << (endsHere ? R"( text-anchor="end")" : "") << '>' << Xml(text) << "</text>\n";
}

void Picture::WriteBar(std::string_view style, double from, double to, double top, double height) {
    output << R"(<rect class=")" << style << R"(" x=")" << Pixels(from) << R"(" y=")" << Pixels(top) << R"(" width=")"
           << Pixels(std::max(to - from, kNarrowest)) << R"(" height=")" << Pixels(height) << R"("/>)" << '\n';
}

void Picture::BeginUnit(PluginIndex index) {
    output << R"(<g class="unit)" << (course.isCritical[index] ? " crit" : "") << R"("><title>)" << Xml(Hover(index))
           << "</title>\n";
}

void Picture::WriteLegend() {
    constexpr double kSwatch = 22;
    constexpr double kGap = 6;
    constexpr double kSpace = 24;
    double x = kMargin;
    const auto add = [&](const char* group, const char* style, std::string_view text) {
        output << R"(<g class=")" << group << R"(">)";
        WriteBar(style, x, x + kSwatch, kLegendTop, 12);
        output << "</g>\n";
        WriteText(x + kSwatch + kGap, kLegendTop + 10, "pale", text);
        x += kSwatch + kGap + kSpace + static_cast<double>(text.size()) * kLetter;
    };
    add("plain", "bar", "a plugin runs");
    add("crit", "bar", "it is on the critical chain");
    add("plain", "wait", "its barriers are open, it waits for a free thread");
    if (!isEveryRowShown) {
        WriteText(kAxisLeft, RowsTop() - kSectionGap / 2 + 2, "pale",
                  "the " + std::to_string(kMostRows) + " slowest plugins");
    }
}

void Picture::WriteAxis() {
    const Microseconds step = TickStep(span);
    // Division rounds towards 0, so that a first tick before lofter's start is in the picture, too.
    for (Microseconds tick = course.begin / step * step; tick <= course.end; tick += step) {
        const std::string x = Pixels(At(tick));
        const std::string text = ShownDuration(tick);
        const auto label = [&](double y) {
            output << R"(<text class="pale" text-anchor="middle" x=")" << x << R"(" y=")" << Pixels(y) << R"(">)"
                   << text << "</text>\n";
        };
        output << R"(<line class="grid" x1=")" << x << R"(" x2=")" << x << R"(" y1=")" << Pixels(kLanesTop - 8)
               << R"(" y2=")" << Pixels(Height() - kMargin) << R"("/>)" << '\n';
        label(kLanesTop - 13);
        for (std::size_t row = kBlock; row < rows.size(); row += kBlock) {
            label(rowTops[rows[row]] - 5);
        }
    }
}

void Picture::WriteLane(std::size_t lane) {
    const double top = kLanesTop + static_cast<double>(lane) * kLaneHeight;
    WriteText(kAxisLeft - 8, top + kLaneHeight / 2 + 4, "pale", "thread " + std::to_string(lane + 1), true);
    for (const PluginIndex index : course.lanes[lane]) {
        const BootPlugin& plugin = boot.plugins[index];
        const double from = At(plugin.timing->start);
        const double to = from + At(course.begin + TimeTaken(plugin)) - kAxisLeft;
        BeginUnit(index);
        WriteBar("bar", from, to, top + kBarGap, kLaneHeight - 2 * kBarGap);
        const std::string name = Shown(plugin.Name());
        if (static_cast<double>(LettersOf(name)) * kLetter + 8 < to - from) {
            WriteText(from + 4, top + kLaneHeight / 2 + 4, "on", name);
        }
        output << "</g>\n";
    }
}

void Picture::WriteRow(std::size_t row) {
    const PluginIndex index = rows[row];
    const BootPlugin& plugin = boot.plugins[index];
    const double top = rowTops[index];
    const double from = At(plugin.timing->start);
    const double to = std::max(from + At(course.begin + TimeTaken(plugin)) - kAxisLeft, from + kNarrowest);
    BeginUnit(index);
    WriteText(kAxisLeft - 8, top + kRowHeight - 5, "name", Abbreviated(Shown(plugin.Name())), true);
    if (const std::optional<Wait>& wait = course.waits[index]; wait && wait->wait > 0) {
        WriteBar("wait", At(wait->ready), from, top + kBarGap, kRowHeight - 2 * kBarGap);
    }
    WriteBar("bar", from, to, top + kBarGap, kRowHeight - 2 * kBarGap);
    WriteText(to + 4, top + kRowHeight - 5, "pale", plugin.timing->end ? ShownDuration(TimeTaken(plugin)) : "skipped");
    output << "</g>\n";
}

// Down from the end of each plugin of the chain to the start of the next.
void Picture::WriteWay() {
    for (std::size_t next = 1; next < course.chain.size(); ++next) {
        const double from = rowTops[course.chain[next - 1]];
        const double to = rowTops[course.chain[next]];
        if (from > 0 && to > 0) {
            const BootPlugin& opener = boot.plugins[course.chain[next - 1]];
            output << R"(<path class="way" d="M)" << Pixels(At(opener.timing->start + TimeTaken(opener))) << ' '
                   << Pixels(from + kRowHeight - kBarGap) << " V" << Pixels(to + kRowHeight / 2) << " H"
                   << Pixels(At(boot.plugins[course.chain[next]].timing->start)) << R"("/>)" << '\n';
        }
    }
}

void Picture::Write() {
    const std::string height = Pixels(Height());
    output << R"(<?xml version="1.0" encoding="UTF-8"?>)" << '\n'
           << R"(<svg xmlns="http://www.w3.org/2000/svg" width=")" << Pixels(kWidth) << R"(" height=")" << height
           << R"(" viewBox="0 0 )" << Pixels(kWidth) << ' ' << height << R"(" font-family="sans-serif" role="img">)"
           << "\n<title>" << Xml("A boot of " + Headline()) << "</title>\n"
           << kStyle << R"(<rect class="paper" width=")" << Pixels(kWidth) << R"(" height=")" << height << R"("/>)"
           << '\n';
    WriteText(kMargin, 30, "head", Headline());
    WriteLegend();
    WriteAxis();
    for (std::size_t lane = 0; lane < course.lanes.size(); ++lane) {
        WriteLane(lane);
    }
    WriteWay();
    for (std::size_t row = 0; row < rows.size(); ++row) {
        WriteRow(row);
    }
    output << "</svg>\n";
}

}  // namespace

void WriteSvgChart(const Boot& boot, const Course& course, std::ostream& output) {
    Picture(boot, course, output).Write();
}

}  // namespace lofter::analyze
