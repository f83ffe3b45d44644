// Plain descriptor output for the CLI framework. The standard streams' buffers are left alone, because a forked process
// has its parent's unwritten text in them.
#pragma once

#include <cerrno>
#include <string_view>

#include <unistd.h>

namespace platform {

// Writes it all, or as much as the system takes. Callable between fork and exit.
inline void WriteAll(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(descriptor, text.data(), text.size());
        if (written >= 0) {
            text.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            return;
        }
    }
}

}  // namespace platform
