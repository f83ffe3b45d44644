// The address of the command executor's control socket.
#pragma once

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

}  // namespace lofter
