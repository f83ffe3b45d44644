#include "posix/Printable.h"

#include <algorithm>
#include <array>

namespace posix {

namespace {

// What the text begins with: so many bytes, shown as they are or spelled out.
struct Symbol {
    std::size_t bytes;
    bool isShown;
};

unsigned At(std::string_view text, std::size_t index) {
    return static_cast<unsigned char>(text[index]);
}

// Sequences that are longer than they need be, surrogates and what is beyond Unicode show in the second byte.
bool IsSecond(unsigned first, unsigned second) {
    switch (first) {
        case 0xe0:
            return second >= 0xa0;
        case 0xed:
            return second <= 0x9f;
        case 0xf0:
            return second >= 0x90;
        case 0xf4:
            return second <= 0x8f;
        default:
            return true;
    }
}

// The length of the well-formed sequence of several bytes that the text begins with; 0 when it begins with none.
std::size_t SequenceLength(std::string_view text) {
    const unsigned first = At(text, 0);
    if (first < 0xc2 || first > 0xf4) {
        return 0;
    }
    const std::size_t length = first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
    if (text.size() < length || !IsSecond(first, At(text, 1))) {
        return 0;
    }
    const std::string_view rest = text.substr(1, length - 1);
    return std::all_of(rest.begin(), rest.end(), [](char byte) { return (byte & 0xc0) == 0x80; }) ? length : 0;
}

// Of a text that is not empty.
Symbol FirstOf(std::string_view text) {
    const unsigned first = At(text, 0);
    if (first < 0x80) {
        return {1, (first >= 0x20 && first != 0x7f) || first == '\n' || first == '\t'};
    }
    if (const std::size_t length = SequenceLength(text); length > 0) {
        return {length, first != 0xc2 || At(text, 1) > 0x9f};
    }
    return {1, first > 0x9f};
}

char* SpellOut(std::string_view bytes, char* at) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        for (const char letter : {'\\', 'x', kDigits[At(bytes, index) >> 4U], kDigits[At(bytes, index) & 0xfU]}) {
            *at++ = letter;
        }
    }
    return at;
}

}  // namespace

bool IsPrintable(std::string_view text) {
    while (!text.empty()) {
        const Symbol symbol = FirstOf(text);
        if (!symbol.isShown) {
            return false;
        }
        text.remove_prefix(symbol.bytes);
    }
    return true;
}

std::string Printable(std::string_view text) {
    std::string printable(PrintableLength(text.size()), '\0');
    printable.resize(Printable(text, std::span(printable)).size());
    return printable;
}

std::string PrintableName(std::string_view name) {
    std::string printable;
    while (!name.empty()) {
        const Symbol symbol = FirstOf(name);
        const unsigned first = At(name, 0);
        const bool isShown = symbol.isShown && first != '\n' && first != '\t' && (first < 0x80 || symbol.bytes > 1);
        const std::string_view bytes = name.substr(0, symbol.bytes);
        if (isShown) {
            printable += bytes;
        } else {
            std::array<char, PrintableLength(4)> spelled{};
            printable.append(spelled.data(), SpellOut(bytes, spelled.data()));
        }
        name.remove_prefix(symbol.bytes);
    }
    return printable;
}

std::string_view Printable(std::string_view text, std::span<char> room) {
    char* end = room.data();
    while (!text.empty()) {
        const Symbol symbol = FirstOf(text);
        const std::string_view bytes = text.substr(0, symbol.bytes);
        const std::size_t left = room.size() - static_cast<std::size_t>(end - room.data());
        if (left < (symbol.isShown ? bytes.size() : PrintableLength(bytes.size()))) {
            break;
        }
        end = symbol.isShown ? std::copy(bytes.begin(), bytes.end(), end) : SpellOut(bytes, end);
        text.remove_prefix(symbol.bytes);
    }
    return {room.data(), static_cast<std::size_t>(end - room.data())};
}

}  // namespace posix
