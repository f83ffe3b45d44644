// Text from outside on its way to a terminal.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

namespace posix {

// The text with a question mark in place of every control character but line ends: nothing in a plugin's name moves the
// cursor or programs the terminal.
inline std::string Printable(std::string_view text) {
    std::string printable(text);
    std::replace_if(
        printable.begin(), printable.end(),
        [](char symbol) { return symbol != '\n' && (static_cast<unsigned char>(symbol) < 0x20 || symbol == 0x7f); },
        '?');
    return printable;
}

// As much of the start of a text as fits into that many bytes, not ending within a UTF-8 sequence.
inline std::string_view Shortened(std::string_view text, std::size_t bytes) {
    if (text.size() <= bytes) {
        return text;
    }
    while (bytes > 0 && (static_cast<unsigned char>(text[bytes]) & 0xC0U) == 0x80U) {
        --bytes;
    }
    return text.substr(0, bytes);
}

}  // namespace posix
