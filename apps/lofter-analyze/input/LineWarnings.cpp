#include "input/LineWarnings.h"

#include <algorithm>

#include "posix/Printable.h"

namespace lofter::analyze {

namespace {

constexpr std::size_t kShownLines = 20;
constexpr std::size_t kShownNames = 5;

void Warn(std::ostream& output, const std::string& text) {
    output << "lofter-analyze: warning: " << posix::PrintableName(text) << '\n';
}

}  // namespace

LineWarnings::~LineWarnings() {
    if (lines > kShownLines) {
        AddWhole("and " + std::to_string(lines - kShownLines) + " more such lines");
    }
}

void LineWarnings::AddLine(int line, const std::string& text) {
    if (++lines <= kShownLines) {
        Warn(output, file + ':' + std::to_string(line) + ": " + text);
    }
}

void LineWarnings::AddWhole(const std::string& text) const {
    Warn(output, file + ": " + text);
}

void LineWarnings::AddNames(std::string text, const std::vector<std::string>& names) const {
    if (names.empty()) {
        return;
    }
    const char* separator = ": '";
    for (std::size_t index = 0; index < std::min(names.size(), kShownNames); ++index) {
        text += separator + names[index] + '\'';
        separator = ", '";
    }
    if (names.size() > kShownNames) {
        text += " and " + std::to_string(names.size() - kShownNames) + " more";
    }
    AddWhole(text);
}

}  // namespace lofter::analyze
