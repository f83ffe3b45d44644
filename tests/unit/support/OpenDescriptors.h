// The descriptors that this process has open.
#pragma once

#include <set>

#include <fcntl.h>

namespace lofter::test {

inline std::set<int> OpenDescriptors() {
    std::set<int> open;
    for (int number = 0; number < 1024; ++number) {
        if (::fcntl(number, F_GETFD) >= 0) {
            open.insert(number);
        }
    }
    return open;
}

}  // namespace lofter::test
