#include "console/Terminal.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "base/Logging.h"
#include "posix/File.h"

namespace lofter {

namespace {

constexpr int kPause = 200;  // milliseconds, between two looks at what gives nothing now
constexpr tcflag_t kLinesAndEcho = ICANON | ECHO;

std::string DeviceOf(int descriptor) {
    std::array<char, PATH_MAX> name{};
    return ::ttyname_r(descriptor, name.data(), name.size()) == 0 ? name.data() : std::string();
}

bool IsHungUp(int descriptor) {
    termios ignored{};
    return ::tcgetattr(descriptor, &ignored) != 0 && errno == EIO;
}

void Pause() {
    ::poll(nullptr, 0, kPause);
}

// How long a signal's handler waits for a stopped terminal, in milliseconds.
volatile std::sig_atomic_t handlerPatience = 0;

// Handles the signals that end the process. Calls only what a signal's handler may.
void LeaveUsableTerminal(int number) {
    termios modes{};
    if (::tcgetattr(STDIN_FILENO, &modes) == 0) {
        modes.c_lflag |= kLinesAndEcho;
        ::tcsetattr(STDIN_FILENO, TCSANOW, &modes);
    }
    // A terminal that is stopped must not keep the signal from ending the process.
    pollfd output{STDOUT_FILENO, POLLOUT, 0};
    if (::poll(&output, 1, handlerPatience) == 1 && (output.revents & POLLOUT) != 0) {
        static_cast<void>(::write(STDOUT_FILENO, kShowCursor, sizeof kShowCursor - 1) == 0);
    }
    ::raise(number);  // waits until this returns, and meets the default then
}

}  // namespace

void WriteToTerminal(std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(STDOUT_FILENO, text.data(), text.size());
        if (written >= 0) {
            text.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno == EAGAIN) {
            pollfd room{STDOUT_FILENO, POLLOUT, 0};
            ::poll(&room, 1, -1);
        } else if (errno != EINTR) {
            return;
        }
    }
}

UsableTerminalAtEnd::UsableTerminalAtEnd(int patience) {
    handlerPatience = patience;
    struct sigaction action {};
    action.sa_handler = LeaveUsableTerminal;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int number : kSignals) {
        ::sigaddset(&action.sa_mask, number);
    }
    for (std::size_t index = 0; index < kSignals.size(); ++index) {
        ::sigaction(kSignals[index], nullptr, &before[index]);
        if (before[index].sa_handler == SIG_DFL) {
            ::sigaction(kSignals[index], &action, nullptr);
        }
    }
}

UsableTerminalAtEnd::~UsableTerminalAtEnd() {
    for (std::size_t index = 0; index < kSignals.size(); ++index) {
        ::sigaction(kSignals[index], &before[index], nullptr);
    }
}

KeyInput::KeyInput() : known(::tcgetattr(STDIN_FILENO, &modes) == 0) {
    if (!known) {
        Log_Level(kError, "unable to get terminal io state.\n");
    }
    modes.c_lflag &= ~kLinesAndEcho;
    if (!Apply()) {
        Log_Level(kError, "unable to set terminal io state.\n");
    }
}

KeyInput::~KeyInput() {
    modes.c_lflag |= kLinesAndEcho;
    if (!Apply()) {
        Log_Level(kError, "unable to restore terminal io state.\n");
    }
}

// Modes that could not be read cannot be changed either: applying made-up ones would hang up a serial line.
bool KeyInput::Apply() const {
    return known && ::tcsetattr(STDIN_FILENO, TCSANOW, &modes) == 0;
}

std::optional<char> KeyInput::Read() {
    char key = 0;
    for (;;) {
        const ssize_t got = ::read(STDIN_FILENO, &key, 1);
        if (got == 1) {
            return key;
        }
        if (got == -1 && errno == EINTR) {
            continue;
        }
        if (IsHungUp(STDIN_FILENO)) {
            return std::nullopt;
        }
        Pause();  // at end of input every read returns at once, and others can use the processor
    }
}

TerminalStream::TerminalStream(int number) : TerminalStream(number, DeviceOf(number)) {}

TerminalStream::TerminalStream(int number, std::string deviceName)
    : descriptor(number),
      device(std::move(deviceName)),
      statusFlags(::fcntl(number, F_GETFL)),
      isTerminal(::tcgetattr(number, &modes) == 0) {}

void TerminalStream::Restore() const {
    if (!isTerminal) {
        return;
    }
    if (!Revive()) {
        Log_Level(kError, "unable to open terminal '%s' again: %s\n", device.c_str(), std::strerror(errno));
    }
    ::tcsetattr(descriptor, TCSANOW, &modes);
}

bool TerminalStream::Revive() const {
    if (!isTerminal || !IsHungUp(descriptor)) {
        return true;
    }
    return Reopen() && ::tcsetattr(descriptor, TCSANOW, &modes) == 0;
}

bool TerminalStream::Reopen() const {
    // Without waiting for a carrier: the line that has just been hung up may not have one at once.
    const int access = statusFlags & O_ACCMODE;
    const posix::Descriptor again = posix::OpenFile(device, access | O_NONBLOCK);
    return again && ::fcntl(again.Get(), F_SETFL, statusFlags) != -1 && ::dup2(again.Get(), descriptor) != -1;
}

void StandardStreams::Restore() const {
    for (const TerminalStream& stream : streams) {
        stream.Restore();
    }
}

void StandardStreams::AwaitTerminal() const {
    if (!IsHungUp(STDIN_FILENO)) {
        return;
    }
    Pause();  // a line that is hung up as soon as it is opened is not asked on again and again at once
    Restore();
    while (IsHungUp(STDIN_FILENO)) {
        Pause();
        for (const TerminalStream& stream : streams) {
            static_cast<void>(stream.Revive());
        }
    }
}

}  // namespace lofter
