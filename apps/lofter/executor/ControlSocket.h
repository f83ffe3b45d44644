// The command executor's control socket: its address, and what goes over it.
//
// Every message has a connection of its own:
//
//      client to executor   the command line as plain text, 1 to 1023 bytes in one piece; what is beyond that is lost
//      executor to client   its status, a signed 32-bit integer in the host's byte order: 0, or 1 for a failed command
//
//      client to executor   "stop", in any case and whatever follows: the executor ends and sends nothing back
//
// Whether an executor runs is decided only by whether a connection succeeds. The socket file is never removed: the run
// directory is empty at boot, and a file that is there already makes the start of an executor fail.
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
