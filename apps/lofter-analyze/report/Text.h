// Text for people: names that cannot disturb a terminal, durations, tables, colours. Made for 80 columns.
#pragma once

#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "analysis/Boot.h"

namespace lofter::analyze {

// A name from outside: control characters and what is not UTF-8 as "\xNN".
std::string Shown(std::string_view name);

// "850us", "12.345ms", "1.234567s": exact to the microsecond, without zeros at the end. Negative ones with a sign.
std::string ShownDuration(Microseconds duration);

// On as many lines as its words need, each behind the indent. Nothing for an empty text.
void PrintWrapped(std::string_view text, std::string_view indent, std::ostream& output);

enum class Colour { None, Red, Yellow, Blue, Green, Bold, Faint };

// Adds terminal colours, or does not.
class Palette {
  public:
    explicit Palette(bool colours) : isOn(colours) {}
    std::string Paint(Colour colour, std::string_view text) const;

  private:
    bool isOn;
};

// Rows of cells, each column as wide as its widest cell; two blanks between columns, none at a line's end. What does
// not fit into 80 columns goes on in the last column, on lines of its own.
class Table {
  public:
    enum class Align { Left, Right };
    struct Column {
        std::string heading;
        Align align = Align::Left;
    };

    explicit Table(std::vector<Column> tableColumns) : columns(std::move(tableColumns)) {}
    // One cell for each column. A row may be painted whole.
    void Add(std::vector<std::string> cells, Colour colour = Colour::None);
    void Print(std::ostream& output, const Palette& palette) const;

  private:
    struct Row {
        std::vector<std::string> cells;
        Colour colour;
    };
    std::vector<Column> columns;
    std::vector<Row> rows;
};

}  // namespace lofter::analyze
