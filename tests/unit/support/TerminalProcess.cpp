#include "support/TerminalProcess.h"

#include <array>
#include <chrono>
#include <climits>
#include <csignal>
#include <fstream>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/WaitUntil.h"

namespace lofter::test {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kBound = 30000;  // milliseconds; a test that is well never gets near it

// Milliseconds from now, never negative.
int Until(Clock::time_point end) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

Clock::time_point Bound() {
    return Clock::now() + std::chrono::milliseconds(kBound);
}

std::string ReadAvailable(int descriptor) {
    std::array<char, 4096> bytes;
    const ssize_t got = ::read(descriptor, bytes.data(), bytes.size());
    return got > 0 ? std::string(bytes.data(), static_cast<std::size_t>(got)) : std::string();
}

}  // namespace

PseudoTerminal::PseudoTerminal() {
    int operatorSide = -1;
    int deviceSide = -1;
    if (::openpty(&operatorSide, &deviceSide, nullptr, nullptr, nullptr) != 0) {
        throw std::runtime_error("no pseudo-terminal");
    }
    master.Reset(operatorSide);
    slave.Reset(deviceSide);
    ::fcntl(operatorSide, F_SETFD, FD_CLOEXEC);
    ::fcntl(deviceSide, F_SETFD, FD_CLOEXEC);
    termios modes{};
    ::tcgetattr(deviceSide, &modes);
    modes.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    ::tcsetattr(deviceSide, TCSANOW, &modes);
}

std::string PseudoTerminal::Name() const {
    std::array<char, PATH_MAX> name{};
    return ::ttyname_r(Device(), name.data(), name.size()) == 0 ? name.data() : std::string();
}

termios PseudoTerminal::Modes() const {
    termios modes{};
    EXPECT_EQ(::tcgetattr(Operator(), &modes), 0);
    return modes;
}

TerminalProcess::TerminalProcess(std::function<std::string()> body) {
    std::array<int, 2> ends;
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
    result.Reset(ends[0]);
    posix::Descriptor hand(ends[1]);
    process = ::fork();
    if (process == 0) {
        result = std::move(hand);
        Run(body);
    }
}

TerminalProcess::~TerminalProcess() {
    if (!reaped) {
        ::kill(process, SIGKILL);
        ::waitpid(process, nullptr, 0);
    }
}

void TerminalProcess::Run(const std::function<std::string()>& body) {
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        ::dup2(terminal.Device(), stream);
    }
    terminal.CloseDevice();
    terminal.CloseOperator();
    const std::string text = body();
    const ssize_t written = ::write(result.Get(), text.data(), text.size());
    ::_exit(written == static_cast<ssize_t>(text.size()) ? 0 : 1);
}

void TerminalProcess::Type(const std::string& text) const {
    ASSERT_EQ(::write(terminal.Operator(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

bool TerminalProcess::ReadSome(int milliseconds) {
    pollfd ready{terminal.Operator(), POLLIN, 0};
    if (::poll(&ready, 1, milliseconds) != 1) {
        return false;
    }
    unseen += ReadAvailable(terminal.Operator());
    return true;
}

std::string TerminalProcess::WaitForText(const std::string& text) {
    const Clock::time_point end = Bound();
    std::size_t found = std::string::npos;
    while ((found = unseen.find(text)) == std::string::npos) {
        if (!ReadSome(Until(end))) {
            ADD_FAILURE() << "never written: " << text << "\nbut: " << unseen;
            return {};
        }
    }
    std::string seen = unseen.substr(0, found + text.size());
    unseen.erase(0, seen.size());
    return seen;
}

bool TerminalProcess::ReadsLines() const {
    return (terminal.Modes().c_lflag & ICANON) != 0;
}

void TerminalProcess::WaitForKeys() const {
    ASSERT_TRUE(WaitUntil([this] { return !ReadsLines(); })) << "no keys are read";
}

void TerminalProcess::WaitForLines() const {
    ASSERT_TRUE(WaitUntil([this] { return ReadsLines(); })) << "no lines are read";
}

std::string TerminalProcess::WaitForResult(std::string* rest) {
    std::string text;
    const Clock::time_point end = Bound();
    for (;;) {
        std::array<pollfd, 2> ready{{{terminal.Operator(), POLLIN, 0}, {result.Get(), POLLIN, 0}}};
        if (::poll(ready.data(), ready.size(), Until(end)) <= 0) {
            ADD_FAILURE() << "the process does not end; it wrote: " << unseen;
            return {};
        }
        if (ready[0].revents != 0) {
            unseen += ReadAvailable(terminal.Operator());
        } else if (const std::string part = ReadAvailable(result.Get()); part.empty()) {
            break;
        } else {
            text += part;
        }
    }
    if (rest != nullptr) {
        *rest = std::exchange(unseen, {});
    }
    return text;
}

int TerminalProcess::WaitForEnd(std::string* rest) {
    WaitForResult(rest);
    int status = 0;
    reaped = ::waitpid(process, &status, 0) == process;
    return status;
}

void TerminalProcess::WaitForPauses(int count) const {
    const auto pauses = [this] {
        std::ifstream status("/proc/" + std::to_string(process) + "/status");
        std::string word;
        long number = 0;
        while (status >> word && word != "voluntary_ctxt_switches:") {
        }
        status >> number;
        return number;
    };
    const long before = pauses();
    ASSERT_TRUE(WaitUntil([&] { return pauses() >= before + count; })) << "it does not pause";
}

}  // namespace lofter::test
