// A pair of connected descriptors: what is written to one end can be read at the other. On a packet channel, each read
// yields exactly what one write wrote.
#pragma once

#include <array>
#include <string>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "posix/Descriptor.h"

namespace lofter::test {

class Channel {
  public:
    // SOCK_SEQPACKET keeps the bounds of writes, SOCK_STREAM does not. Both ends are close-on-exec.
    explicit Channel(int type = SOCK_SEQPACKET) {
        std::array<int, 2> ends{-1, -1};
        EXPECT_EQ(::socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends.data()), 0);
        reader.Reset(ends[0]);
        writer.Reset(ends[1]);
    }

    int Reader() const { return reader.Get(); }
    int Writer() const { return writer.Get(); }
    void CloseReader() { reader.Reset(); }
    void CloseWriter() { writer.Reset(); }

    // One read; the test fails when nothing comes within the bound. Empty at the end.
    std::string Read() {
        pollfd waited{reader.Get(), POLLIN, 0};
        if (::poll(&waited, 1, 20'000) != 1) {
            ADD_FAILURE() << "nothing to read";
            return {};
        }
        std::string text(1 << 18, '\0');
        const ssize_t length = ::read(reader.Get(), text.data(), text.size());
        text.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
        return text;
    }

    // Whether there is nothing to read.
    bool IsQuiet() const {
        pollfd waited{reader.Get(), POLLIN, 0};
        return ::poll(&waited, 1, 0) == 0;
    }

    // Everything until the last writer is gone; closes this process's writing end first.
    std::string ReadToEnd() {
        CloseWriter();
        std::string whole;
        for (std::string text = Read(); !text.empty(); text = Read()) {
            whole += text;
        }
        return whole;
    }

  private:
    posix::Descriptor reader;
    posix::Descriptor writer;
};

}  // namespace lofter::test
