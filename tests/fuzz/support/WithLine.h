// A text with one more line in it.
#pragma once

#include <cstddef>
#include <string>

namespace lofter::fuzz {

// In front of the line of that number, from 0; behind the last one when there are fewer.
inline std::string WithLine(std::string text, std::size_t number, const std::string& line) {
    std::size_t at = 0;
    for (; number > 0 && at < text.size(); --number) {
        const std::size_t end = text.find('\n', at);
        if (end == std::string::npos) {
            text += '\n';
            at = text.size();
        } else {
            at = end + 1;
        }
    }
    return text.insert(at, line + '\n');
}

}  // namespace lofter::fuzz
