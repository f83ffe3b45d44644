// The first byte is a length, the rest a text on its way to a terminal; and the same text as the content of a pid file.
//
// Nothing that a terminal acts on gets through, a shortened text is a beginning that ends between letters, and a
// process id is the first number in the file, if that is above 0.
#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <sstream>

#include "SyslogReload.h"
#include "posix/Printable.h"
#include "support/Bytes.h"
#include "support/Require.h"

namespace lofter::fuzz {
namespace {

void IsPrintable(const std::string& text) {
    const std::string printable = posix::Printable(text);
    Require(printable.size() == text.size(), "every byte has its place");
    for (std::size_t index = 0; index < text.size(); ++index) {
        const auto code = static_cast<unsigned char>(text[index]);
        const bool isControl = (code < 0x20 && code != '\n') || code == 0x7f;
        Require(printable[index] == (isControl ? '?' : text[index]), "control characters are replaced, others kept");
    }
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
    IsPrintable(text);
    IsShortened(text, length);
    IsTheProcessId(text);
    return 0;
}
