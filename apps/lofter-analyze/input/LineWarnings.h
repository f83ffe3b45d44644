// Warnings about a file that is read all the same, each on a line of its own: "lofter-analyze: warning: <text>".
#pragma once

#include <cstddef>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace lofter::analyze {

class LineWarnings {
  public:
    // The name of the file as it is shown. The stream outlives this.
    LineWarnings(std::string fileName, std::ostream& warningOutput)
        : file(std::move(fileName)), output(warningOutput) {}
    // Says how many lines were not shown.
    ~LineWarnings();
    LineWarnings(const LineWarnings&) = delete;
    LineWarnings& operator=(const LineWarnings&) = delete;

    // "<file>:<line>: <text>". A file can be bad from its first line to its last: only the first few are shown.
    void AddLine(int line, const std::string& text);
    // "<file>: <text>"
    void AddWhole(const std::string& text) const;
    // "<file>: <text>: 'a', 'b' and 3 more", or nothing when there are no names.
    void AddNames(std::string text, const std::vector<std::string>& names) const;

  private:
    const std::string file;
    std::ostream& output;
    std::size_t lines = 0;
};

}  // namespace lofter::analyze
