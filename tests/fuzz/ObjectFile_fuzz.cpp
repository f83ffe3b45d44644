// The bytes are the file of a shared object. It is only looked at, never loaded.
//
// Where its contents end is worked out again here, byte by byte and in numbers that do not wrap around.
#include <cstddef>
#include <sstream>

#include <elf.h>

#include "plugins/ObjectFile.h"
#include "support/Bytes.h"
#include "support/Require.h"

namespace lofter::fuzz {
namespace {

__extension__ using Wide = unsigned __int128;

// A little-endian number.
Wide Number(const std::string& bytes, std::size_t offset, std::size_t length) {
    Wide number = 0;
    for (std::size_t index = length; index > 0; --index) {
        number = number * 256 + static_cast<unsigned char>(bytes[offset + index - 1]);
    }
    return number;
}

bool EndsTooSoon(const std::string& bytes) {
    constexpr std::size_t kHeader = 64;
    constexpr std::size_t kSegment = 56;
    if (bytes.size() < kHeader ||
        !bytes.starts_with("\x7f"
                           "ELF\x02") ||
        Number(bytes, 54, 2) != kSegment) {
        return false;
    }
    const Wide first = Number(bytes, 32, 8);
    const Wide count = Number(bytes, 56, 2);
    if (first + count * kSegment > bytes.size()) {
        return false;  // the loader sees that by itself
    }
    for (Wide index = 0; index < count; ++index) {
        const auto segment = static_cast<std::size_t>(first + index * kSegment);
        const bool isLoaded = Number(bytes, segment, 4) == PT_LOAD;
        if (isLoaded && Number(bytes, segment + 8, 8) + Number(bytes, segment + 32, 8) > bytes.size()) {
            return true;
        }
    }
    return false;
}

}  // namespace
}  // namespace lofter::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lofter::fuzz;
    const std::string bytes = Bytes(data, size).Rest();
    std::istringstream file(bytes);
    Require(lofter::EndsBeforeItsContents(file) == EndsTooSoon(bytes), "a file is as long as its contents, or not");
    return 0;
}
