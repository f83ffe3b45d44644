// Texts taken apart line by line and from the front.
#pragma once

#include <string_view>

namespace lofter::analyze {

// Calls with the number, from 1, and the text of each line; the last one's end may be missing.
template <typename Visit>
void ForEachLine(std::string_view content, const Visit& visit) {
    for (int number = 1; !content.empty(); ++number) {
        const std::size_t end = content.find('\n');
        visit(number, content.substr(0, end));
        content.remove_prefix(end == std::string_view::npos ? content.size() : end + 1);
    }
}

// Takes that text from the front, if it is there.
inline bool Take(std::string_view& text, std::string_view front) {
    const bool isThere = text.starts_with(front);
    text.remove_prefix(isThere ? front.size() : 0);
    return isThere;
}

}  // namespace lofter::analyze
