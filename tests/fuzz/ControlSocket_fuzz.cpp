// The first byte says how the client goes about it, the rest is what it sends to the command executor.
//
// There are no host commands, on no machine, so nothing is run: every line but one that asks for help fails. A client
// that waits gets four bytes, or none when it asked the executor to stop; one that goes away disturbs nobody.
#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

#include <strings.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "autocli/autocli.h"
#include "executor/QorcliDispatcher.h"
#include "executor/QorcliExecutorProcess.h"
#include "posix/Descriptor.h"
#include "support/Bytes.h"
#include "support/Require.h"

namespace lofter {

// Linked in place of the program's own, which has the commands of the machine: inputs would run them.
QorcliDispatcher* QorcliDispatcher::Instance() {
    static QorcliDispatcher withoutCommands;
    return &withoutCommands;
}

QorcliDispatcher::QorcliDispatcher() = default;

QorcliDispatcher::~QorcliDispatcher() = default;

}  // namespace lofter

namespace lofter::fuzz {
namespace {

constexpr std::size_t kLongestCommand = 1023;

// A listening socket under a name that the system chose, in no folder.
class Listener {
  public:
    Listener() : socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        address.sun_family = AF_UNIX;
        Require(::bind(socket.Get(), Address(), sizeof address.sun_family) == 0, "a socket gets a name");
        length = sizeof address;
        Require(::getsockname(socket.Get(), reinterpret_cast<sockaddr*>(&address), &length) == 0, "and tells it");
        Require(::listen(socket.Get(), 16) == 0, "a socket can listen");
    }
    posix::Descriptor Connect() const {
        posix::Descriptor client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        Require(::connect(client.Get(), Address(), length) == 0, "a client can connect");
        return client;
    }
    void Serve() {
        int listening = socket.Get();
        QorcliExecutorProcess::HandleConnection(&listening);
    }

  private:
    const sockaddr* Address() const { return reinterpret_cast<const sockaddr*>(&address); }

    const posix::Descriptor socket;
    sockaddr_un address{};
    socklen_t length = 0;
};

bool AsksForHelp(const std::string& command) {
    AutoCli::OptionParser parser;
    return parser.ParseString(command);
}

// What comes next; empty at the end. The executor closes a connection from which it has not read everything, which the
// system tells the client as a reset.
std::string Receive(const posix::Descriptor& client, bool mayBeReset) {
    std::array<char, 64> answer{};
    const ssize_t length = ::recv(client.Get(), answer.data(), answer.size(), 0);
    Require(length >= 0 || (mayBeReset && errno == ECONNRESET), "the connection ends in peace");
    return {answer.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
}

void IsAnswered(const posix::Descriptor& client, const std::string& message) {
    const bool isTooLong = message.size() > kLongestCommand;
    const std::string command = message.substr(0, kLongestCommand).c_str();
    const std::string answer = Receive(client, isTooLong);
    if (::strncasecmp(command.c_str(), "stop", 4) == 0) {
        Require(answer.empty(), "whoever stops the executor gets no status");
        return;
    }
    std::int32_t status = -1;
    Require(answer.size() == sizeof status, "a status has four bytes");
    std::memcpy(&status, answer.data(), sizeof status);
    Require(status == (AsksForHelp(command) ? 0 : 1), "no command is known, and help is no error");
    Require(Receive(client, isTooLong).empty(), "the connection is closed behind the status");
}

}  // namespace
}  // namespace lofter::fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    std::signal(SIGPIPE, SIG_IGN);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lofter::fuzz;
    static Listener& listener = *new Listener;
    Bytes bytes(data, size);
    const bool goesAway = bytes.Below(4) == 3;
    const std::string message = bytes.Rest();

    posix::Descriptor client = listener.Connect();
    const ssize_t sent = ::send(client.Get(), message.data(), message.size(), 0);
    Require(sent == static_cast<ssize_t>(message.size()), "a short message goes out at once");
    ::shutdown(client.Get(), SHUT_WR);
    if (goesAway) {
        client.Reset();
    }
    listener.Serve();
    if (!goesAway) {
        IsAnswered(client, message);
    }
    return 0;
}
