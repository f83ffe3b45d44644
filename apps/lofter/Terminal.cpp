#include "Terminal.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "Logging.h"
#include "posix/AcrossSignals.h"
#include "posix/Descriptor.h"

namespace lofter {

namespace {

constexpr int kEndOfInputPause = 200;  // milliseconds

std::string DeviceOf(int descriptor) {
    std::array<char, PATH_MAX> name{};
    return ::ttyname_r(descriptor, name.data(), name.size()) == 0 ? name.data() : std::string();
}

bool IsHungUp(int descriptor) {
    termios ignored{};
    return ::tcgetattr(descriptor, &ignored) != 0 && errno == EIO;
}

}  // namespace

void WriteToTerminal(std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(STDOUT_FILENO, text.data(), text.size());
        if (written >= 0) {
            text.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            return;
        }
    }
}

KeyInput::KeyInput() : known(::tcgetattr(STDIN_FILENO, &modes) == 0) {
    if (!known) {
        Log_Level(kError, "unable to get terminal io state.\n");
    }
    modes.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    if (!Apply()) {
        Log_Level(kError, "unable to set terminal io state.\n");
    }
}

KeyInput::~KeyInput() {
    modes.c_lflag |= ICANON | ECHO;
    if (!Apply()) {
        Log_Level(kError, "unable to restore terminal io state.\n");
    }
}

// Modes that could not be read cannot be changed either: applying made-up ones would hang up a serial line.
bool KeyInput::Apply() const {
    return known && ::tcsetattr(STDIN_FILENO, TCSANOW, &modes) == 0;
}

char KeyInput::Read() {
    char key = 0;
    for (;;) {
        const ssize_t got = ::read(STDIN_FILENO, &key, 1);
        if (got == 1) {
            return key;
        }
        // At end of input every read returns at once. The pause keeps the processor for those who can use it.
        if (got == 0 || errno != EINTR) {
            ::poll(nullptr, 0, kEndOfInputPause);
        }
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
    if (IsHungUp(descriptor)) {
        Reopen();
    }
    ::tcsetattr(descriptor, TCSANOW, &modes);
}

void TerminalStream::Reopen() const {
    // Without waiting for a carrier: the line that has just been hung up may not have one at once.
    const int access = statusFlags & O_ACCMODE;
    const posix::Descriptor again(
        posix::AcrossSignals([&] { return ::open(device.c_str(), access | O_NOCTTY | O_NONBLOCK | O_CLOEXEC); }));
    if (!again || ::fcntl(again.Get(), F_SETFL, statusFlags) == -1 || ::dup2(again.Get(), descriptor) == -1) {
        Log_Level(kError, "unable to open terminal '%s' again: %s\n", device.c_str(), std::strerror(errno));
    }
}

}  // namespace lofter
