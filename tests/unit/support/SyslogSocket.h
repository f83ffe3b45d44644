// The socket of a syslog daemon, as its clients see it.
#pragma once

#include <string>

#include <sys/socket.h>

#include "posix/Descriptor.h"

namespace lofter::test {

class SyslogSocket {
  public:
    // Binds the path, in place of whatever is there; SOCK_STREAM listens as well.
    explicit SyslogSocket(const std::string& path, int type = SOCK_DGRAM);

    // The next record; the test fails when none comes within the bound. A stream's first record accepts the client.
    std::string Receive();

    // Whether nothing has come.
    bool IsQuiet();

    // Fills the socket with records of another client until it takes no more. Returns their number.
    int Fill(const std::string& path);

  private:
    posix::Descriptor socket;
    posix::Descriptor client;  // of a stream
    int type;
};

}  // namespace lofter::test
