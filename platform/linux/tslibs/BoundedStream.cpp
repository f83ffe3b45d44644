#include "tslibs/BoundedStream.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <optional>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "posix/AcrossSignals.h"
#include "tslibs/Gather.h"

namespace platform {

namespace {

// A serial line is called ready only when nearly all is sent, which may take it seconds, but has room long before.
constexpr std::chrono::milliseconds kPause{20};

// Keeps writes of this thread from raising SIGPIPE, whatever the process does with that signal.
class BrokenPipeGuard {
  public:
    BrokenPipeGuard() {
        sigemptyset(&pipeSignal);
        sigaddset(&pipeSignal, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipeSignal, &maskBefore);
    }
    ~BrokenPipeGuard() { pthread_sigmask(SIG_SETMASK, &maskBefore, nullptr); }
    BrokenPipeGuard(const BrokenPipeGuard&) = delete;
    BrokenPipeGuard& operator=(const BrokenPipeGuard&) = delete;

    // Takes back the signal that a write has just raised, unless the thread had blocked it and may be waiting for one.
    void Discard() const {
        if (sigismember(&maskBefore, SIGPIPE) == 0) {
            const timespec noWait{};
            sigtimedwait(&pipeSignal, nullptr, &noWait);
        }
    }

  private:
    sigset_t pipeSignal{};
    sigset_t maskBefore{};
};

// To open the master of a pseudo-terminal again makes another pseudo-terminal.
bool IsMaster(int terminal) {
    int number = 0;
    return ::ioctl(terminal, TIOCGPTN, &number) == 0;
}

posix::Descriptor OpenAgain(int descriptor) {
    std::array<char, 32> path{};
    std::snprintf(path.data(), path.size(), "/proc/self/fd/%d", descriptor);
    return posix::AboveStandardStreams(posix::Descriptor(
        posix::AcrossSignals([&] { return ::open(path.data(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC); })));
}

}  // namespace

BoundedStream::BoundedStream(int openDescriptor) : descriptor(openDescriptor) {}

BoundedStream::~BoundedStream() {
    Forget();
}

void BoundedStream::AfterFork() {
    static_cast<void>(second.Release());
    hasFailed = true;  // so that the way is chosen anew
}

bool BoundedStream::Refresh() {
    struct stat status {};
    ::fstat(descriptor, &status);
    const bool isOther = status.st_dev != device || status.st_ino != inode;
    if (isOther || hasFailed || (second && !IsOwn())) {
        Choose();
    }
    return isOther;
}

void BoundedStream::Choose() {
    Forget();
    struct stat status {};
    ::fstat(descriptor, &status);  // a descriptor that is closed is plain, and writing to it fails
    device = status.st_dev;
    inode = status.st_ino;
    hasFailed = false;
    isPipe = S_ISFIFO(status.st_mode);
    if (S_ISSOCK(status.st_mode)) {
        way = Way::kSocket;
    } else if (isPipe || ::isatty(descriptor) != 0) {
        if (isPipe || !IsMaster(descriptor)) {
            second = OpenAgain(descriptor);
        }
        way = second ? Way::kSecondDescription : Way::kAfterALook;
    } else {
        way = Way::kPlain;
    }
}

void BoundedStream::Forget() {
    if (second && !IsOwn()) {
        static_cast<void>(second.Release());
    }
    second.Reset();
}

bool BoundedStream::IsOwn() const {
    struct stat status {};
    return ::fstat(second.Get(), &status) == 0 && status.st_dev == device && status.st_ino == inode;
}

BoundedStream::Outcome BoundedStream::Write(std::span<iovec>& parts, Clock::time_point deadline) {
    Outcome outcome = WriteAll(parts, deadline);
    if (outcome == Outcome::kFailed && second) {
        // A terminal that was hung up and opened again is the same file, but not for the second description.
        Choose();
        outcome = WriteAll(parts, deadline);
    }
    hasFailed = outcome == Outcome::kFailed;
    return outcome;
}

BoundedStream::Outcome BoundedStream::WriteAll(std::span<iovec>& parts, Clock::time_point deadline) const {
    std::optional<BrokenPipeGuard> guard;
    if (isPipe) {
        guard.emplace();
    }
    // A terminal that is stuck may have room for a piece of a line. It has drained only when it is ready for more.
    bool looksFirst = way != Way::kPlain && Clock::now() >= deadline;
    while (!parts.empty()) {
        if ((looksFirst || way == Way::kAfterALook) && !WaitForRoom(deadline)) {
            return Outcome::kFull;
        }
        looksFirst = false;
        const ssize_t written = WriteOnce(parts);
        if (written >= 0) {
            parts = Advance(parts, static_cast<std::size_t>(written));
        } else if (errno == EAGAIN) {
            const Clock::time_point now = Clock::now();
            if (now >= deadline) {
                return Outcome::kFull;
            }
            WaitForRoom(std::min(deadline, now + kPause));
        } else if (errno != EINTR) {
            if (guard && errno == EPIPE) {
                guard->Discard();
            }
            return Outcome::kFailed;
        }
    }
    return Outcome::kDone;
}

ssize_t BoundedStream::WriteOnce(std::span<iovec> parts) const {
    if (way == Way::kSocket) {
        msghdr message{};
        message.msg_iov = parts.data();
        message.msg_iovlen = parts.size();
        return ::sendmsg(descriptor, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    // What has room takes so much for certain: a pipe keeps that much together, a terminal has been seen to take a
    // byte.
    const std::size_t certain = isPipe ? PIPE_BUF : 1;
    if (way == Way::kAfterALook && Length(parts) > certain) {
        return ::write(descriptor, parts.front().iov_base, std::min(parts.front().iov_len, certain));
    }
    return ::writev(Target(), parts.data(), static_cast<int>(parts.size()));
}

bool BoundedStream::WaitForRoom(Clock::time_point deadline) const {
    return posix::AcrossSignals([&] {
               const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
               pollfd waited{Target(), POLLOUT, 0};
               return ::poll(&waited, 1, static_cast<int>(std::max(left, left.zero()).count()));
           }) > 0;
}

}  // namespace platform
