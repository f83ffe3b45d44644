#include "tslibs/SyslogClient.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <span>
#include <utility>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "posix/AcrossSignals.h"
#include "posix/Descriptor.h"
#include "posix/Printable.h"
#include "tslibs/Gather.h"

namespace platform {

namespace {

timeval TimeOf(std::chrono::milliseconds length) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(length);
    return {seconds.count(), std::chrono::microseconds(length - seconds).count()};
}

}  // namespace

SyslogClient::SyslogClient(std::string socketPath, std::chrono::milliseconds longestWait)
    : path(std::move(socketPath)), patience(longestWait) {}

SyslogClient::~SyslogClient() {
    Disconnect();
}

void SyslogClient::Send(std::string_view head, std::string_view text) {
    // The second attempt is for a daemon that was restarted.
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (!IsConnected() && !Connect()) {
            return;
        }
        const Outcome outcome = SendCut(head, text);
        hung = outcome == Outcome::kBusy;
        if (outcome == Outcome::kSent) {
            return;
        }
        // A busy one is left as well: another daemon may have taken its place while a relative of the old one keeps the
        // old socket open and never reads it.
        Disconnect();
        if (hung) {
            return;
        }
    }
}

bool SyslogClient::IsConnected() {
    if (socket >= 0 && !IsOwnSocket()) {
        socket = -1;
    }
    return socket >= 0;
}

bool SyslogClient::IsOwnSocket() const {
    struct stat status {};
    return ::fstat(socket, &status) == 0 && status.st_dev == device && status.st_ino == inode;
}

void SyslogClient::Disconnect() {
    if (IsConnected()) {
        const posix::Descriptor closing(std::exchange(socket, -1));
    }
}

bool SyslogClient::Connect() {
    return ConnectAs(SOCK_DGRAM) || (errno == EPROTOTYPE && ConnectAs(SOCK_STREAM));
}

bool SyslogClient::ConnectAs(int type) {
    sockaddr_un address{};
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);

    // After a wait in vain a queue that is full is not waited for, either.
    const int nonBlocking = hung ? SOCK_NONBLOCK : 0;
    posix::Descriptor created =
        posix::AboveStandardStreams(posix::Descriptor(::socket(AF_UNIX, type | SOCK_CLOEXEC | nonBlocking, 0)));
    const timeval bound = TimeOf(patience);
    struct stat status {};
    if (!created || ::setsockopt(created.Get(), SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof bound) != 0 ||
        ::fstat(created.Get(), &status) != 0) {
        return false;
    }
    if (posix::AcrossSignals([&] {
            return ::connect(created.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
        }) != 0) {
        // The wrong type says nothing about the daemon; the right one is tried next.
        hung = errno == EAGAIN || (hung && errno == EPROTOTYPE);
        return false;
    }
    if (hung) {
        ::fcntl(created.Get(), F_SETFL, 0);
    }
    device = status.st_dev;
    inode = status.st_ino;
    socketType = type;
    socket = created.Release();
    return true;
}

SyslogClient::Outcome SyslogClient::SendCut(std::string_view head, std::string_view text) const {
    Outcome outcome = SendOnce(head, text);
    while (outcome == Outcome::kTooLong && !text.empty()) {
        text = posix::Shortened(text, text.size() / 2);
        outcome = SendOnce(head, text);
    }
    return outcome;
}

SyslogClient::Outcome SyslogClient::SendOnce(std::string_view head, std::string_view text) const {
    // On a stream, records end with a NUL.
    constexpr char kEnd = '\0';
    const std::string_view end(&kEnd, socketType == SOCK_STREAM ? 1 : 0);
    std::array parts{Part(head), Part(text), Part(end)};
    std::span<iovec> left(parts);
    do {
        msghdr message{};
        message.msg_iov = left.data();
        message.msg_iovlen = left.size();
        const ssize_t sent = ::sendmsg(socket, &message, MSG_NOSIGNAL | (hung ? MSG_DONTWAIT : 0));
        if (sent >= 0) {
            left = Advance(left, static_cast<std::size_t>(sent));
        } else if (errno == EMSGSIZE || errno == ENOBUFS) {
            return Outcome::kTooLong;
        } else if (errno == EAGAIN) {
            return Outcome::kBusy;
        } else if (errno != EINTR) {
            return Outcome::kGone;
        }
    } while (!left.empty());
    return Outcome::kSent;
}

}  // namespace platform
