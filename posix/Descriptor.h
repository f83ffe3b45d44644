// A file descriptor with one owner, closed when the owner goes.
//
// Move-only. Holds -1 when it owns nothing. Closing keeps errno, so the reason of a failure can be read after the
// object that it befell is gone. Not synchronised.
#pragma once

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace posix {

class Descriptor {
  public:
    Descriptor() = default;
    explicit Descriptor(int number) : descriptor(number) {}
    Descriptor(Descriptor&& other) noexcept : descriptor(other.Release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) {
            Reset(other.Release());
        }
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { Reset(); }

    int Get() const { return descriptor; }
    explicit operator bool() const { return descriptor >= 0; }

    // Gives up ownership without closing.
    [[nodiscard]] int Release() { return std::exchange(descriptor, -1); }

    // Closes what is owned and owns the given descriptor instead.
    void Reset(int number = -1) {
        const int owned = std::exchange(descriptor, number);
        if (owned >= 0) {
            const int reason = errno;
            // Not repeated on EINTR: Linux has given the number back by then, and another thread may have it already.
            ::close(owned);
            errno = reason;
        }
    }

  private:
    int descriptor = -1;
};

// What was opened while a standard stream was closed gets its number, and what is printed would land in it. Returns the
// same under a higher number, closed on exec; nothing, with errno set, when there is none.
inline Descriptor AboveStandardStreams(Descriptor opened) {
    if (opened.Get() > STDERR_FILENO || !opened) {
        return opened;
    }
    return Descriptor(::fcntl(opened.Get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

}  // namespace posix
