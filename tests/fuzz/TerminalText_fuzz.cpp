// The first byte is a length, the rest a text on its way to a terminal; and the same text as the content of a pid file.
//
// Nothing that a terminal acts on gets through, everything else does, a shortened text is a beginning that ends between
// letters, and a process id is the first number in the file, if that is above 0.
#include <algorithm>
#include <cstdint>
#include <iomanip>
#include <limits>
#include <optional>
#include <sstream>
#include <vector>

#include "SyslogReload.h"
#include "posix/Printable.h"
#include "support/Bytes.h"
#include "support/Require.h"

namespace lofter::fuzz {
namespace {

struct Letter {
    std::size_t bytes;
    unsigned code;  // a byte that is no part of a letter stands for itself
};

// By the bits: a first byte says how many follow with six bits each, and nothing is written longer than it need be.
Letter LetterAt(const std::string& text, std::size_t index) {
    const unsigned first = static_cast<unsigned char>(text[index]);
    const std::size_t bytes = first >= 0xf8 ? 1 : first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : first >= 0xc0 ? 2 : 1;
    if (bytes == 1 || index + bytes > text.size()) {
        return {1, first};
    }
    unsigned code = first & (0x7fU >> bytes);
    for (std::size_t follower = index + 1; follower < index + bytes; ++follower) {
        const unsigned byte = static_cast<unsigned char>(text[follower]);
        if (byte >> 6U != 2) {
            return {1, first};
        }
        code = code << 6U | (byte & 0x3fU);
    }
    const unsigned least = bytes == 2 ? 0x80 : bytes == 3 ? 0x800 : 0x10000;
    const bool isLetter = code >= least && code <= 0x10ffff && (code < 0xd800 || code > 0xdfff);
    return isLetter ? Letter{bytes, code} : Letter{1, first};
}

std::string Spelled(const std::string& bytes) {
    std::ostringstream spelled;
    for (const char byte : bytes) {
        spelled << "\\x" << std::hex << std::setw(2) << std::setfill('0')
                << static_cast<unsigned>(static_cast<unsigned char>(byte));
    }
    return spelled.str();
}

void IsPrintable(const std::string& text, std::size_t room) {
    std::string shown;
    std::size_t fitting = 0;
    for (std::size_t index = 0; index < text.size();) {
        const auto [bytes, code] = LetterAt(text, index);
        const bool isControl = (code < 0x20 && code != '\n' && code != '\t') || (code >= 0x7f && code <= 0x9f);
        const std::string letter = text.substr(index, bytes);
        shown += isControl ? Spelled(letter) : letter;
        fitting = shown.size() <= room ? shown.size() : fitting;
        index += bytes;
    }
    Require(posix::Printable(text) == shown, "control characters are spelled out, others kept");
    Require(posix::IsPrintable(text) == (shown == text), "what needs no spelling is known");
    Require(posix::IsPrintable(shown), "nothing of what is shown needs spelling");
    Require(shown.size() <= posix::PrintableLength(text.size()), "the longest form is known");
    std::vector<char> bytes(room);
    Require(posix::Printable(text, bytes) == shown.substr(0, fitting), "the letters that fit into the room");
}

void IsShortened(const std::string& text, std::size_t bytes) {
    const std::string shortened(posix::Shortened(text, bytes));
    Require(shortened.size() <= bytes && text.starts_with(shortened), "a beginning of the text");
    Require(text.size() > bytes || shortened == text, "what fits stays whole");
    const bool isInsideALetter =
        shortened.size() < text.size() && (static_cast<unsigned char>(text[shortened.size()]) & 0xC0U) == 0x80U;
    Require(!isInsideALetter || shortened.empty(), "letters stay whole");
}

std::optional<std::int64_t> ProcessIdIn(const std::string& content) {
    std::size_t place = std::min(content.find_first_not_of(" \t\n\v\f\r"), content.size());
    place += content.substr(place, 1) == "+" ? 1 : 0;
    std::int64_t value = 0;
    for (; place < content.size() && content[place] >= '0' && content[place] <= '9'; ++place) {
        value = value * 10 + (content[place] - '0');
        if (value > std::numeric_limits<std::int32_t>::max()) {
            return std::nullopt;
        }
    }
    return value > 0 ? std::optional(value) : std::nullopt;
}

void IsTheProcessId(const std::string& content) {
    std::istringstream file(content);
    Require(ReadProcessId(file) == ProcessIdIn(content), "the first number in the file");
}

}  // namespace
}  // namespace lofter::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lofter::fuzz;
    Bytes bytes(data, size);
    const std::size_t length = bytes.Byte();
    const std::string text = bytes.Rest();
    IsPrintable(text, length);
    IsShortened(text, length);
    IsTheProcessId(text);
    return 0;
}
