// Pieces of one record for writev and sendmsg, so that a line needs no buffer of its own.
#pragma once

#include <numeric>
#include <span>
#include <string_view>

#include <sys/uio.h>

namespace platform {

// The system only reads from the pieces it writes; its type merely does not say so.
inline iovec Part(std::string_view text) {
    return {const_cast<char*>(text.data()), text.size()};
}

// What is left of the pieces after that many bytes of them went out.
inline std::span<iovec> Advance(std::span<iovec> parts, std::size_t bytes) {
    while (!parts.empty() && bytes >= parts.front().iov_len) {
        bytes -= parts.front().iov_len;
        parts = parts.subspan(1);
    }
    if (!parts.empty()) {
        parts.front().iov_base = static_cast<char*>(parts.front().iov_base) + bytes;
        parts.front().iov_len -= bytes;
    }
    return parts;
}

inline std::size_t Length(std::span<const iovec> parts) {
    return std::accumulate(parts.begin(), parts.end(), std::size_t{0},
                           [](std::size_t sum, const iovec& part) { return sum + part.iov_len; });
}

}  // namespace platform
