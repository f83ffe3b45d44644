#include "report/Text.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "posix/Printable.h"

namespace lofter::analyze {

namespace {

constexpr std::size_t kLineWidth = 80;
constexpr std::size_t kGap = 2;

// Characters on the screen: what continues a UTF-8 sequence takes no place of its own.
std::size_t Width(std::string_view text) {
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char byte) { return (byte & 0xc0) != 0x80; }));
}

// Takes as many of the text's words as fit into that width, at least one character.
std::string_view TakeLine(std::string_view& text, std::size_t width) {
    std::size_t bytes = 0;
    std::size_t lastBlank = 0;
    for (std::size_t shown = 0; bytes < text.size() && shown <= width; ++shown) {
        if (text[bytes] == ' ') {
            lastBlank = bytes;
        }
        if (shown == width) {
            break;
        }
        do {
            ++bytes;
        } while (bytes < text.size() && (text[bytes] & 0xc0) == 0x80);
    }
    if (bytes == text.size()) {
        return std::exchange(text, {});
    }
    const std::size_t cut = lastBlank > 0 ? lastBlank : std::max<std::size_t>(bytes, 1);
    const std::string_view line = text.substr(0, cut);
    text.remove_prefix(lastBlank > 0 ? cut + 1 : cut);
    return line;
}

const char* CodeOf(Colour colour) {
    switch (colour) {
        case Colour::Red:
            return "31";
        case Colour::Yellow:
            return "33";
        case Colour::Blue:
            return "34";
        case Colour::Green:
            return "32";
        case Colour::Bold:
            return "1";
        case Colour::Faint:
            return "2";
        case Colour::None:
            break;
    }
    return "0";
}

}  // namespace

std::string Shown(std::string_view name) {
    return posix::PrintableName(name);
}

std::string ShownDuration(Microseconds duration) {
    struct Unit {
        std::uint64_t size;
        std::size_t digits;
        const char* name;
    };
    constexpr Unit kMicrosecond{1, 0, "us"};
    constexpr Unit kMillisecond{1'000, 3, "ms"};
    constexpr Unit kSecond{1'000'000, 6, "s"};

    const std::uint64_t size =
        duration < 0 ? -static_cast<std::uint64_t>(duration) : static_cast<std::uint64_t>(duration);
    const Unit& unit = size < kMillisecond.size ? kMicrosecond : size < kSecond.size ? kMillisecond : kSecond;
    std::string text = (duration < 0 ? "-" : "") + std::to_string(size / unit.size);
    std::string fraction = std::to_string(size % unit.size);
    fraction.insert(0, unit.digits - std::min(unit.digits, fraction.size()), '0');
    fraction.erase(fraction.find_last_not_of('0') + 1);
    if (!fraction.empty()) {
        text += '.' + fraction;
    }
    return text + unit.name;
}

std::string Palette::Paint(Colour colour, std::string_view text) const {
    if (!isOn || colour == Colour::None || text.empty()) {
        return std::string(text);
    }
    return std::string("\x1b[") + CodeOf(colour) + 'm' + std::string(text) + "\x1b[0m";
}

void PrintWrapped(std::string_view text, std::string_view indent, std::ostream& output) {
    while (!text.empty()) {
        output << indent << TakeLine(text, kLineWidth - indent.size()) << '\n';
    }
}

void Table::Add(std::vector<std::string> cells, Colour colour) {
    rows.push_back({std::move(cells), colour});
}

void Table::Print(std::ostream& output, const Palette& palette) const {
    std::vector<std::size_t> widths;
    for (const Column& column : columns) {
        widths.push_back(Width(column.heading));
    }
    for (const Row& row : rows) {
        for (std::size_t index = 0; index < columns.size(); ++index) {
            widths[index] = std::max(widths[index], Width(row.cells[index]));
        }
    }
    std::size_t lastAt = 0;  // where the last column begins
    for (std::size_t index = 0; index + 1 < columns.size(); ++index) {
        lastAt += widths[index] + kGap;
    }
    constexpr std::size_t kNarrowest = 20;
    const std::size_t lastWidth = std::max(kLineWidth - std::min(lastAt, kLineWidth), kNarrowest);

    const auto print = [&](const std::vector<std::string>& cells, Colour colour) {
        std::string line;
        for (std::size_t index = 0; index + 1 < columns.size(); ++index) {
            const std::string padding(widths[index] - Width(cells[index]), ' ');
            const bool isRight = columns[index].align == Align::Right;
            line += (isRight ? padding + cells[index] : cells[index] + padding) + std::string(kGap, ' ');
        }
        std::string last = cells.back();
        if (columns.back().align == Align::Right && widths.back() <= lastWidth) {
            last.insert(0, widths.back() - Width(last), ' ');
        }
        std::string_view rest = last;
        do {
            line += TakeLine(rest, lastWidth);
            line.erase(line.find_last_not_of(' ') + 1);
            output << palette.Paint(colour, line) << '\n';
            line.assign(lastAt, ' ');
        } while (!rest.empty());
    };

    std::vector<std::string> headings;
    for (const Column& column : columns) {
        headings.push_back(column.heading);
    }
    print(headings, Colour::Bold);
    for (const Row& row : rows) {
        print(row.cells, row.colour);
    }
}

}  // namespace lofter::analyze
