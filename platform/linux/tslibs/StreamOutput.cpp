#include "tslibs/StreamOutput.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <span>

#include <poll.h>
#include <pthread.h>
#include <sys/uio.h>

#include "tslibs/Gather.h"
#include "tslibs/TimeStamp.h"

namespace platform {

namespace {

constexpr int kWaitMilliseconds = 200;

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

bool WaitWritable(int descriptor) {
    pollfd waited{descriptor, POLLOUT, 0};
    return ::poll(&waited, 1, kWaitMilliseconds) > 0;
}

enum class Outcome { kDone, kFull, kBroken, kFailed };

Outcome WriteAll(int descriptor, std::span<iovec> parts, bool mayWait) {
    while (!parts.empty()) {
        const ssize_t written = ::writev(descriptor, parts.data(), static_cast<int>(parts.size()));
        if (written >= 0) {
            parts = Advance(parts, static_cast<std::size_t>(written));
        } else if (errno == EAGAIN) {
            if (!mayWait || !WaitWritable(descriptor)) {
                return Outcome::kFull;
            }
        } else if (errno != EINTR) {
            return errno == EPIPE ? Outcome::kBroken : Outcome::kFailed;
        }
    }
    return Outcome::kDone;
}

std::string_view LevelName(int level) {
    if (level <= kErrorLevel) {
        return "error ";
    }
    return level <= kWarningLevel ? "warning " : level <= kInfoLevel ? "info " : "trace ";
}

}  // namespace

StreamOutput::StreamOutput(int openDescriptor, std::string name, Form lineForm)
    : descriptor(openDescriptor), identifier(std::move(name)), form(lineForm) {}

void StreamOutput::Write(int level, std::string_view message) {
    if (level > form.finestLevel) {
        return;
    }
    TimeStamp stamp;
    if (form.timeStamps) {
        stamp = TimeStamp::Iso(TimeStamp::Clock::now(), form.milliseconds);
    }
    std::array parts{Part(stamp.Text()),
                     Part(form.timeStamps ? " " : ""),
                     Part(LevelName(level)),
                     Part(identifier),
                     Part(": "),
                     Part(message),
                     Part("\n")};
    const BrokenPipeGuard guard;
    const Outcome outcome = WriteAll(descriptor, parts, !stuck);
    stuck = outcome == Outcome::kFull;
    if (outcome == Outcome::kBroken) {
        guard.Discard();
    }
}

}  // namespace platform
