// Both ends of a command executor's control socket.
#pragma once

#include <string>

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "executor/ControlSocket.h"
#include "posix/Descriptor.h"

namespace lofter::test {

inline posix::Descriptor ListenAt(const std::string& socketPath) {
    const ControlSocketAddress address(socketPath);
    posix::Descriptor listening(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(::bind(listening.Get(), address.Get(), ControlSocketAddress::Length()), 0);
    EXPECT_EQ(::listen(listening.Get(), 16), 0);
    return listening;
}

inline posix::Descriptor ConnectTo(const std::string& socketPath) {
    const ControlSocketAddress address(socketPath);
    posix::Descriptor client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(::connect(client.Get(), address.Get(), ControlSocketAddress::Length()), 0);
    return client;
}

}  // namespace lofter::test
