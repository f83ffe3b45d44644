// The bytes of one fuzzer input, taken from the front. Once they have run out, every number is 0 and every text empty.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace lofter::fuzz {

class Bytes {
  public:
    Bytes(const std::uint8_t* first, std::size_t size) : rest(first), left(size) {}

    bool Empty() const { return left == 0; }

    std::uint8_t Byte() {
        if (left == 0) {
            return 0;
        }
        --left;
        return *rest++;
    }

    // A number from 0 to `bound` - 1, which is at most 255.
    std::size_t Below(std::size_t bound) { return Byte() % bound; }

    bool Flag() { return (Byte() & 1U) != 0; }

    std::string Text(std::size_t most) {
        const std::size_t length = std::min(most, left);
        std::string text(reinterpret_cast<const char*>(rest), length);
        rest += length;
        left -= length;
        return text;
    }

    // Up to the next such byte, which is taken as well.
    std::string TextUntil(char end) {
        const void* found = left == 0 ? nullptr : std::memchr(rest, end, left);
        if (found == nullptr) {
            return Text(left);
        }
        std::string text = Text(static_cast<std::size_t>(static_cast<const std::uint8_t*>(found) - rest));
        Byte();
        return text;
    }

    std::string Rest() { return Text(left); }

  private:
    const std::uint8_t* rest;
    std::size_t left;
};

}  // namespace lofter::fuzz
