#include "support/SyslogSocket.h"

#include <algorithm>
#include <cstring>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/un.h>
#include <unistd.h>

namespace lofter::test {

namespace {

constexpr int kBoundMilliseconds = 10'000;

sockaddr_un AddressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

bool Readable(int socket, int milliseconds) {
    pollfd waited{socket, POLLIN, 0};
    return ::poll(&waited, 1, milliseconds) == 1;
}

}  // namespace

SyslogSocket::SyslogSocket(const std::string& path, int socketType)
    : socket(::socket(AF_UNIX, socketType | SOCK_CLOEXEC, 0)), type(socketType) {
    const sockaddr_un address = AddressOf(path);
    ::unlink(path.c_str());
    EXPECT_EQ(::bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0) << strerror(errno);
    if (type == SOCK_STREAM) {
        EXPECT_EQ(::listen(socket.Get(), 1), 0);
    }
}

std::string SyslogSocket::Receive() {
    if (type == SOCK_STREAM && !client) {
        if (!Readable(socket.Get(), kBoundMilliseconds)) {
            ADD_FAILURE() << "no client came";
            return {};
        }
        client.Reset(::accept4(socket.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    }
    const int source = client ? client.Get() : socket.Get();
    if (!Readable(source, kBoundMilliseconds)) {
        ADD_FAILURE() << "no record came";
        return {};
    }
    const ssize_t waiting = ::recv(source, nullptr, 0, MSG_PEEK | MSG_TRUNC);
    std::string record(type == SOCK_STREAM ? 4096 : static_cast<std::size_t>(std::max<ssize_t>(waiting, 0)), '\0');
    const ssize_t length = ::recv(source, record.data(), record.size(), 0);
    record.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    return record;
}

bool SyslogSocket::IsQuiet() {
    return !Readable(client ? client.Get() : socket.Get(), 0);
}

int SyslogSocket::Fill(const std::string& path) {
    const posix::Descriptor other(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = AddressOf(path);
    EXPECT_EQ(::connect(other.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    int count = 0;
    while (::send(other.Get(), "other", 5, MSG_DONTWAIT) == 5) {
        ++count;
    }
    return count;
}

}  // namespace lofter::test
