// Waits for a fact, with a bound.
#pragma once

#include <chrono>

#include <poll.h>

namespace lofter::test {

// Looks at the fact until it is true. Returns whether it became true in time.
template <typename Fact>
bool WaitUntil(Fact fact, std::chrono::milliseconds bound = std::chrono::seconds(20)) {
    const auto end = std::chrono::steady_clock::now() + bound;
    while (!fact()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        ::poll(nullptr, 0, 2);
    }
    return true;
}

}  // namespace lofter::test
