#include "executor/AcceptRelief.h"

#include <algorithm>

#include <fcntl.h>
#include <poll.h>

#include "posix/File.h"

namespace lofter {

void AcceptRelief::Sleep(int milliseconds) {
    ::poll(nullptr, 0, milliseconds);
}

void AcceptRelief::SetAside() {
    if (!reserve) {
        reserve = posix::OpenFile("/", O_PATH);
    }
    nextPause = kFirstPause;
}

void AcceptRelief::AfterFailure() {
    reserve.Reset();
    pass(nextPause);
    nextPause = std::min(2 * nextPause, kLongestPause);
}

}  // namespace lofter
