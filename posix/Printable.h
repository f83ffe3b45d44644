// Text from outside on its way to where people read it: a terminal, a log.
//
// Nothing in a plugin's name or in a program's output may move the cursor or program the terminal. Control characters
// are therefore spelled out, each of their bytes as "\x1b" and the like: those below a blank but line ends and tabs,
// DEL, the upper ones (U+0080 to U+009F in UTF-8), and bytes 0x80 to 0x9f outside of well-formed UTF-8, which are the
// same to a terminal that knows no UTF-8. Everything else is shown as it is, a backslash included.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace posix {

// Whether all of the text is shown as it is.
bool IsPrintable(std::string_view text);

// The text as it is shown.
std::string Printable(std::string_view text);

// The same for a name within a line: line ends, tabs and all bytes outside of well-formed UTF-8 are spelled out, too.
std::string PrintableName(std::string_view name);

// The longest form in which a text of so many bytes is shown.
constexpr std::size_t PrintableLength(std::size_t bytes) {
    return 4 * bytes;
}

// The text as it is shown, in the given room and without other memory: as much of its start as fits, not ending within
// what stands for one character.
std::string_view Printable(std::string_view text, std::span<char> room);

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
