#include "input/LineWarnings.h"

#include "posix/Printable.h"

namespace lofter::analyze {

namespace {

constexpr std::size_t kShownLines = 20;

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

}  // namespace lofter::analyze
