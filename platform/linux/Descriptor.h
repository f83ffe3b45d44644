// A file descriptor with one owner, closed when the owner goes. The platform layer's own, because this layer stands
// below the orchestrator and includes nothing of it. Move-only; -1 when it owns nothing; closing keeps errno.
#pragma once

#include <cerrno>
#include <utility>

#include <unistd.h>

namespace platform {

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
    int Release() { return std::exchange(descriptor, -1); }

    void Reset(int number = -1) {
        const int owned = std::exchange(descriptor, number);
        if (owned >= 0) {
            const int reason = errno;
            ::close(owned);
            errno = reason;
        }
    }

  private:
    int descriptor = -1;
};

}  // namespace platform
