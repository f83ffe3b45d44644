// The command executor's control socket: its address, and calls on it that go on after a signal.
#pragma once

#include <cerrno>
#include <string>

#include <sys/socket.h>
#include <sys/un.h>

namespace lofter {

class ControlSocketAddress {
  public:
    // A path that does not fit is cut.
    explicit ControlSocketAddress(const std::string& path) {
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
    }
    const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&address); }
    static constexpr socklen_t Length() { return sizeof(sockaddr_un); }

  private:
    sockaddr_un address{};
};

// Repeats a system call for as long as signals interrupt it.
template <typename Call>
auto AcrossSignals(Call call) {
    auto result = call();
    while (result == -1 && errno == EINTR) {
        result = call();
    }
    return result;
}

}  // namespace lofter
