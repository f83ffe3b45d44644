#include "console/Terminal.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/Logging.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"
#include "support/TerminalProcess.h"

namespace lofter {
namespace {

using test::PseudoTerminal;
using test::TerminalProcess;

constexpr tcflag_t kLinesAndEcho = ICANON | ECHO;

std::string Joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += line + "\n";
    }
    return text;
}

// The read end of a pipe that is at its end already.
posix::Descriptor EndOfInput() {
    std::array<int, 2> ends{};
    EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    const posix::Descriptor writer(ends[1]);
    return posix::Descriptor(ends[0]);
}

TEST(KeyInput, ReadsWithoutLinesAndEchoAndPutsBothBack) {
    TerminalProcess process([] {
        std::string keys;
        {
            KeyInput input;
            keys += input.Read().value_or(0);
            keys += input.Read().value_or(0);
        }
        return keys;
    });
    const termios& before = process.initialModes;
    process.WaitForKeys();
    const termios during = process.terminal.Modes();
    EXPECT_EQ(during.c_lflag, before.c_lflag & ~kLinesAndEcho);
    EXPECT_EQ(during.c_iflag, before.c_iflag);
    EXPECT_EQ(during.c_oflag, before.c_oflag);
    process.Type("xy");
    std::string written;
    EXPECT_EQ(process.WaitForResult(&written), "xy");
    EXPECT_EQ(written, "");
    EXPECT_EQ(process.terminal.Modes().c_lflag, before.c_lflag);
}

TEST(KeyInput, SwitchesLinesAndEchoOnEvenIfTheyWereOff) {
    TerminalProcess process([] {
        termios raw{};
        ::tcgetattr(STDIN_FILENO, &raw);
        raw.c_lflag &= ~kLinesAndEcho;
        ::tcsetattr(STDIN_FILENO, TCSANOW, &raw);
        const KeyInput input;
        return std::string();
    });
    process.WaitForResult();
    EXPECT_EQ(process.terminal.Modes().c_lflag & kLinesAndEcho, kLinesAndEcho);
}

TEST(KeyInput, LogsEveryStepThatAStreamWithoutATerminalRefuses) {
    TerminalProcess process([] {
        const test::LogCapture log;
        std::array<int, 2> ends{};
        EXPECT_EQ(::pipe(ends.data()), 0);
        EXPECT_EQ(::write(ends[1], "k", 1), 1);
        ::dup2(ends[0], STDIN_FILENO);
        char key = 0;
        {
            KeyInput input;
            key = input.Read().value_or(0);
        }
        return key + ("\n" + Joined(log.Lines(kError)));
    });
    EXPECT_EQ(process.WaitForResult(),
              "k\n"
              "unable to get terminal io state.\n"
              "unable to set terminal io state.\n"
              "unable to restore terminal io state.\n");
}

TEST(KeyInput, TakesNoMoreThanTheKeyItReturns) {
    TerminalProcess process([] {
        std::string keys;
        {
            KeyInput input;
            keys += input.Read().value_or(0);
        }
        std::array<char, 16> rest{};
        const ssize_t got = ::read(STDIN_FILENO, rest.data(), rest.size());
        return keys + "|" + std::string(rest.data(), got > 0 ? static_cast<std::size_t>(got) : 0);
    });
    process.WaitForKeys();
    process.Type("abc\n");
    EXPECT_EQ(process.WaitForResult(), "a|bc\n");
}

TEST(KeyInput, ReadsOnAtEndOfInputWithoutBurningTheProcessor) {
    TerminalProcess process([] {
        const posix::Descriptor ended = EndOfInput();
        ::dup2(ended.Get(), STDIN_FILENO);
        KeyInput input;
        WriteToTerminal("reading\n");
        input.Read();
        return std::string("returned");
    });
    process.WaitForText("reading");
    process.WaitForPauses(3);
}

// A process that reads keys, and says so.
std::string ReadAKey() {
    constexpr int kPatience = 100;  // milliseconds
    std::string keys;
    {
        const UsableTerminalAtEnd whileKeysAreRead(kPatience);
        WriteToTerminal(kHideCursor);
        KeyInput input;
        WriteToTerminal("reading");
        keys += input.Read().value_or('-');
    }
    for (const int number : {SIGHUP, SIGINT, SIGTERM}) {
        struct sigaction action {};
        ::sigaction(number, nullptr, &action);
        keys += action.sa_handler == SIG_DFL ? 'd' : action.sa_handler == SIG_IGN ? 'i' : '?';
    }
    return keys;
}

TEST(UsableTerminalAtEnd, IsLeftBehindByASignalThatEndsTheProcess) {
    for (const int number : {SIGHUP, SIGINT, SIGTERM}) {
        TerminalProcess process([number] {
            ::signal(number, SIG_DFL);
            return ReadAKey();
        });
        process.WaitForText("reading");
        ASSERT_EQ(::kill(process.Id(), number), 0);
        std::string written;
        const int status = process.WaitForEnd(&written);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == number) << number << " " << status;
        EXPECT_EQ(written, kShowCursor) << number;
        EXPECT_EQ(process.terminal.Modes().c_lflag, process.initialModes.c_lflag) << number;
    }
}

TEST(UsableTerminalAtEnd, EndsTheProcessEvenWhenTheTerminalTakesNoOutput) {
    TerminalProcess process([] {
        ::signal(SIGTERM, SIG_DFL);
        return ReadAKey();
    });
    process.WaitForText("reading");
    ASSERT_EQ(::tcflow(process.terminal.Device(), TCOOFF), 0);
    ASSERT_EQ(::kill(process.Id(), SIGTERM), 0);
    const int status = process.WaitForEnd();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
    EXPECT_EQ(process.terminal.Modes().c_lflag, process.initialModes.c_lflag);
}

TEST(UsableTerminalAtEnd, LeavesWhatIsIgnoredIgnoredAndPutsTheOthersBack) {
    TerminalProcess process([] {
        ::signal(SIGHUP, SIG_DFL);
        ::signal(SIGINT, SIG_IGN);
        ::signal(SIGTERM, SIG_DFL);
        return ReadAKey();
    });
    process.WaitForText("reading");
    ASSERT_EQ(::kill(process.Id(), SIGINT), 0);
    process.Type("k");
    EXPECT_EQ(process.WaitForResult(), "kdid");
}

TEST(WriteToTerminal, WritesEverythingHoweverSlowlyItIsTaken) {
    const std::string text(300'000, 'x');
    TerminalProcess process([&] {
        WriteToTerminal(text + "end");
        return std::string("written");
    });
    EXPECT_EQ(process.WaitForText("end").size(), text.size() + 3);
    EXPECT_EQ(process.WaitForResult(), "written");
}

TEST(WriteToTerminal, WaitsAlsoWhereTheTerminalDoesNotBlock) {
    const std::string text(300'000, 'x');
    TerminalProcess process([&] {
        ::fcntl(STDOUT_FILENO, F_SETFL, O_RDWR | O_NONBLOCK);
        WriteToTerminal(text + "end");
        return std::string("written");
    });
    EXPECT_EQ(process.WaitForText("end").size(), text.size() + 3);
    EXPECT_EQ(process.WaitForResult(), "written");
}

TEST(WriteToTerminal, IgnoresAnOutputThatIsGone) {
    TerminalProcess process([] {
        ::dup2(posix::Descriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC)).Get(), STDOUT_FILENO);
        WriteToTerminal("lost");
        return std::string("goes on");
    });
    EXPECT_EQ(process.WaitForResult(), "goes on");
}

// A terminal that is reached by a name of the test's own: when the first one is hung up, the name leads to the second,
// as a real device's name leads to the device again.
class HungUpTerminal : public testing::Test {
  protected:
    HungUpTerminal() {
        std::filesystem::create_symlink(first.Name(), device);
        stream.Reset(::open(device.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    }

    // Ends the first terminal's line; every descriptor on it is dead from now on.
    void HangUp() {
        first.CloseOperator();
        std::filesystem::remove(device);
        std::filesystem::create_symlink(second.Name(), device);
        termios modes{};
        ASSERT_EQ(::tcgetattr(stream.Get(), &modes), -1);
        ASSERT_EQ(errno, EIO);
    }

    static tcflag_t WithoutEcho(int descriptor) {
        termios modes{};
        EXPECT_EQ(::tcgetattr(descriptor, &modes), 0);
        modes.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        EXPECT_EQ(::tcsetattr(descriptor, TCSANOW, &modes), 0);
        return modes.c_lflag;
    }

    PseudoTerminal first;
    PseudoTerminal second;
    const test::TemporaryDirectory folder;
    const std::filesystem::path device = folder / "device";
    posix::Descriptor stream;
};

TEST_F(HungUpTerminal, IsOpenedAgainOnTheSameNumberWithItsEarlierModes) {
    const tcflag_t earlier = WithoutEcho(stream.Get());
    const TerminalStream before(stream.Get(), device);
    HangUp();
    before.Restore();

    EXPECT_EQ(second.Modes().c_lflag, earlier);
    ASSERT_EQ(::write(stream.Get(), "hello", 5), 5);
    std::array<char, 16> seen{};
    EXPECT_EQ(::read(second.Operator(), seen.data(), seen.size()), 5);
    ASSERT_EQ(::write(second.Operator(), "typed\n", 6), 6);
    EXPECT_EQ(::read(stream.Get(), seen.data(), seen.size()), 6);
    EXPECT_EQ(::fcntl(stream.Get(), F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_RDWR);
    EXPECT_EQ(::fcntl(stream.Get(), F_GETFD), 0) << "standard streams are inherited by plugins' programs";
}

TEST_F(HungUpTerminal, DoesNotBecomeTheControllingTerminal) {
    TerminalProcess process([&] {
        ::setsid();
        const TerminalStream before(stream.Get(), device);
        HangUp();
        before.Restore();
        const posix::Descriptor controlling(::open("/dev/tty", O_RDWR | O_CLOEXEC));
        return std::string(::isatty(stream.Get()) == 1 && !controlling ? "none" : "wrong");
    });
    // The process holds a copy of the operator's side: only without this one does closing it hang up the line.
    first.CloseOperator();
    EXPECT_EQ(process.WaitForResult(), "none");
}

TEST_F(HungUpTerminal, IsReportedWhenItCannotBeOpenedAgain) {
    const test::LogCapture log;
    const TerminalStream before(stream.Get(), device);
    HangUp();
    std::filesystem::remove(device);
    before.Restore();
    EXPECT_EQ(log.Lines(kError), std::vector<std::string>{"unable to open terminal '" + device.string() +
                                                          "' again: No such file or directory"});
}

TEST_F(HungUpTerminal, IsRevivedWithoutAWordOnceItsDeviceIsThereAgain) {
    const test::LogCapture log;
    const tcflag_t earlier = WithoutEcho(stream.Get());
    const TerminalStream before(stream.Get(), device);
    EXPECT_TRUE(before.Revive());
    HangUp();
    std::filesystem::remove(device);
    EXPECT_FALSE(before.Revive());
    EXPECT_EQ(errno, ENOENT);
    std::filesystem::create_symlink(second.Name(), device);
    EXPECT_TRUE(before.Revive());
    EXPECT_EQ(second.Modes().c_lflag, earlier);
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(HungUpTerminal, GivesNoKeys) {
    TerminalProcess process([this] {
        ::dup2(stream.Get(), STDIN_FILENO);
        first.CloseOperator();  // the copy here; the other's end is what hangs up
        KeyInput input;
        WriteToTerminal("reading");
        const bool isNone = !input.Read();
        return std::string(isNone ? "none" : "some");
    });
    process.WaitForText("reading");
    first.CloseOperator();
    EXPECT_EQ(process.WaitForResult(), "none");
}

TEST_F(HungUpTerminal, LeavesALivingTerminalOpenAndOnlyRestoresItsModes) {
    const TerminalStream before(stream.Get(), "/no/such/device");
    const tcflag_t earlier = first.Modes().c_lflag;
    WithoutEcho(stream.Get());
    const test::LogCapture log;
    before.Restore();
    EXPECT_EQ(first.Modes().c_lflag, earlier);
    EXPECT_TRUE(log.Lines().empty());
}

TEST(TerminalStream, LeavesAStreamThatIsNoTerminalAlone) {
    const test::LogCapture log;
    const posix::Descriptor ended = EndOfInput();
    TerminalStream(ended.Get()).Restore();
    EXPECT_TRUE(log.Lines().empty());
    char byte = 0;
    EXPECT_EQ(::read(ended.Get(), &byte, 1), 0);
}

}  // namespace
}  // namespace lofter
