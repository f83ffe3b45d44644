#include "tslibs/StreamOutput.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <future>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include "support/Channel.h"
#include "support/ChildOutcome.h"
#include "support/Faults.h"
#include "support/ForkedChild.h"
#include "support/OpenDescriptors.h"
#include "support/TemporaryDirectory.h"
#include "support/WaitUntil.h"

namespace platform {
namespace {

using lofter::test::Channel;
using lofter::test::ForkedChild;
using lofter::test::OpenDescriptors;
using lofter::test::TemporaryDirectory;
using lofter::test::WaitUntil;

constexpr StreamOutput::Form kPlain{kInfoLevel, false, false};
constexpr std::chrono::milliseconds kShortWait{100};

// A pipe that is filled to the brim, and whose writing end blocks or not.
struct FullPipe {
    explicit FullPipe(int writersFlags = O_NONBLOCK) {
        int ends[2];
        EXPECT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
        reader.Reset(ends[0]);
        writer.Reset(ends[1]);
        while (::write(writer.Get(), "x", 1) == 1) {
        }
        EXPECT_EQ(::fcntl(writer.Get(), F_SETFL, writersFlags), 0);
    }
    // Takes out all that is in it, and returns its last part.
    std::string Drain() const {
        std::string last;
        char bytes[4096];
        for (ssize_t length = 0; (length = ::read(reader.Get(), bytes, sizeof bytes)) > 0;) {
            last.assign(bytes, static_cast<std::size_t>(length));
        }
        return last;
    }
    posix::Descriptor reader;
    posix::Descriptor writer;
};

TEST(StreamOutput, WritesTimeLevelAndIdentifierBeforeTheText) {
    Channel channel;
    StreamOutput output(channel.Writer(), "lofter", {});
    output.Write(kInfoLevel, "text");
    const std::string line = channel.Read();
    EXPECT_TRUE(testing::internal::RE::FullMatch(
        line,
        "20[0-9][0-9]-[0-9][0-9]-[0-9][0-9] [0-9][0-9]:[0-9][0-9]:[0-9][0-9]\\.[0-9][0-9][0-9] info lofter: text\n"))
        << line;
}

TEST(StreamOutput, LeavesOutWhatTheFormDoesNotAskFor) {
    Channel channel;
    StreamOutput(channel.Writer(), "lofter", {kInfoLevel, true, false}).Write(kInfoLevel, "text");
    const std::string line = channel.Read();
    EXPECT_TRUE(testing::internal::RE::FullMatch(
        line, "20[0-9][0-9]-[0-9][0-9]-[0-9][0-9] [0-9][0-9]:[0-9][0-9]:[0-9][0-9] info lofter: text\n"))
        << line;
    StreamOutput(channel.Writer(), "lofter", kPlain).Write(kInfoLevel, "text");
    EXPECT_EQ(channel.Read(), "info lofter: text\n");
}

TEST(StreamOutput, NamesTheLevels) {
    Channel channel;
    StreamOutput output(channel.Writer(), "lofter", kPlain);
    for (const auto& [level, name] :
         {std::pair{0, "error"}, {110, "error"}, {111, "warning"}, {115, "warning"}, {116, "info"}, {125, "info"}}) {
        output.Write(level, "x");
        EXPECT_EQ(channel.Read(), name + std::string(" lofter: x\n")) << level;
    }
}

TEST(StreamOutput, LetsNothingThroughThatIsFinerThanItsLevel) {
    Channel channel;
    StreamOutput information(channel.Writer(), "lofter", kPlain);
    information.Write(126, "too fine");
    StreamOutput errors(channel.Writer(), "lofter", {kErrorLevel, false, false});
    errors.Write(111, "too fine");
    EXPECT_TRUE(channel.IsQuiet());
    errors.Write(kErrorLevel, "coarse enough");
    EXPECT_EQ(channel.Read(), "error lofter: coarse enough\n");
}

TEST(StreamOutput, WritesEachMessageAtOnceWithItsInnerLineEnds) {
    Channel channel;
    StreamOutput output(channel.Writer(), "lofter", kPlain);
    output.Write(kInfoLevel, "two\nlines");
    output.Write(kInfoLevel, "");
    EXPECT_EQ(channel.Read(), "info lofter: two\nlines\n");
    EXPECT_EQ(channel.Read(), "info lofter: \n");
}

// Lets a socket hold as little as can be.
void MakeSmall(const Channel& channel) {
    const int size = 0;
    ASSERT_EQ(::setsockopt(channel.Writer(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size), 0);
}

TEST(StreamOutput, GoesOnAfterAPartialWrite) {
    Channel channel(SOCK_STREAM);
    // Takes but a part of it at a time.
    ASSERT_EQ(::fcntl(channel.Writer(), F_SETFL, O_NONBLOCK), 0);
    MakeSmall(channel);
    const std::string text(30'000, 'x');
    auto reading = std::async(std::launch::async, [&] {
        std::string whole;
        for (std::string part; !whole.ends_with('\n') && !(part = channel.Read()).empty();) {
            whole += part;
        }
        return whole;
    });
    StreamOutput(channel.Writer(), "lofter", kPlain).Write(kInfoLevel, text);
    EXPECT_TRUE(reading.get() == "info lofter: " + text + "\n");
}

TEST(StreamOutput, SurvivesAReaderThatIsGone) {
    ForkedChild child([] {
        ::signal(SIGPIPE, SIG_DFL);
        FullPipe pipe;
        pipe.reader.Reset();
        StreamOutput(pipe.writer.Get(), "lofter", kPlain).Write(kInfoLevel, "lost");
        sigset_t pending;
        ::sigpending(&pending);
        return ::sigismember(&pending, SIGPIPE);
    });
    EXPECT_EQ(child.Wait(), 0);
}

TEST(StreamOutput, LeavesTheCallersPendingSignalPending) {
    ForkedChild child([] {
        sigset_t pipeSignal;
        ::sigemptyset(&pipeSignal);
        ::sigaddset(&pipeSignal, SIGPIPE);
        ::sigprocmask(SIG_BLOCK, &pipeSignal, nullptr);
        ::raise(SIGPIPE);
        FullPipe pipe;
        pipe.reader.Reset();
        StreamOutput(pipe.writer.Get(), "lofter", kPlain).Write(kInfoLevel, "lost");
        sigset_t pending;
        ::sigpending(&pending);
        return ::sigismember(&pending, SIGPIPE) == 1 ? 0 : 1;
    });
    EXPECT_EQ(child.Wait(), 0);
}

TEST(StreamOutput, IgnoresFailures) {
    StreamOutput(-1, "lofter", kPlain).Write(kInfoLevel, "nowhere");
    const posix::Descriptor full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    StreamOutput(full.Get(), "lofter", kPlain).Write(kInfoLevel, "no space");
}

std::string Lost(int lines) {
    return lines == 1
               ? "warning lofter: 1 log line was lost while standard output took none\n"
               : "warning lofter: " + std::to_string(lines) + " log lines were lost while standard output took none\n";
}

// If each of the lines were waited for, one after the other, that would take minutes.
constexpr int kMany = 2000;
void WriteManyLines(StreamOutput& output) {
    const auto start = std::chrono::steady_clock::now();
    for (int count = 0; count < kMany; ++count) {
        output.Write(kInfoLevel, "dropped");
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(50));
}

TEST(StreamOutput, WaitsOnceForAReaderThatIsStuckAndSaysWhatThatCost) {
    for (const int flags : {0, O_NONBLOCK}) {
        const FullPipe pipe(flags);
        StreamOutput output(pipe.writer.Get(), "lofter", kPlain, kShortWait);
        WriteManyLines(output);
        pipe.Drain();
        output.Write(kInfoLevel, "awake");
        output.Write(kInfoLevel, "again");
        EXPECT_EQ(pipe.Drain(), Lost(kMany) + "info lofter: awake\ninfo lofter: again\n");
        EXPECT_EQ(::fcntl(pipe.writer.Get(), F_GETFL) & O_NONBLOCK, flags);
    }
}

TEST(StreamOutput, NamesStandardErrorWhereThatWasStuck) {
    Channel channel;
    ForkedChild child([&] {
        const FullPipe pipe;
        ::dup2(pipe.writer.Get(), STDERR_FILENO);
        StreamOutput output(STDERR_FILENO, "lofter", kPlain, kShortWait);
        output.Write(kInfoLevel, "dropped");
        pipe.Drain();
        output.Write(kInfoLevel, "awake");
        const std::string last = pipe.Drain();
        return ::write(channel.Writer(), last.data(), last.size()) > 0 ? 0 : 1;
    });
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_EQ(channel.Read(),
              "warning lofter: 1 log line was lost while standard error took none\ninfo lofter: awake\n");
}

TEST(StreamOutput, EndsALineThatWentOutInPartBeforeAnythingElse) {
    Channel channel(SOCK_STREAM);
    const int flags = ::fcntl(channel.Writer(), F_GETFL);
    StreamOutput output(channel.Writer(), "lofter", kPlain, kShortWait);
    output.Write(kInfoLevel, std::string(3'000'000, 'x'));
    output.Write(kInfoLevel, "dropped");
    std::string part;
    while (!channel.IsQuiet()) {
        part += channel.Read();
    }
    EXPECT_TRUE(part.starts_with("info lofter: xxx") && part.ends_with("xxx"));
    output.Write(kInfoLevel, "awake");
    EXPECT_EQ(channel.ReadToEnd(), "\n" + Lost(2) + "info lofter: awake\n");
    EXPECT_EQ(flags & O_NONBLOCK, 0);
}

TEST(StreamOutput, LosesNothingToAReaderThatIsOnlySlow) {
    Channel channel;
    MakeSmall(channel);
    while (::send(channel.Writer(), "x", 1, MSG_DONTWAIT) == 1) {
    }
    // The socket is not called ready before it is nearly empty.
    std::atomic<bool> ended = false;
    auto reading = std::async(std::launch::async, [&] {
        std::string whole;
        while (!ended || !channel.IsQuiet()) {
            whole += channel.IsQuiet() ? "" : channel.Read();
            ::poll(nullptr, 0, ended ? 0 : 5);
        }
        return whole;
    });
    StreamOutput output(channel.Writer(), "lofter", kPlain);
    std::string expected;
    for (int count = 0; count < 30; ++count) {
        output.Write(kInfoLevel, "text");
        expected += "info lofter: text\n";
    }
    ended = true;
    const std::string whole = reading.get();
    EXPECT_EQ(whole.substr(whole.find('i')), expected);
}

// A terminal, and what it shows.
struct TestTerminal {
    TestTerminal() {
        int ends[2];
        EXPECT_EQ(::openpty(&ends[0], &ends[1], nullptr, nullptr, nullptr), 0);
        master.Reset(ends[0]);
        slave.Reset(ends[1]);
        termios raw{};
        ::tcgetattr(slave.Get(), &raw);
        ::cfmakeraw(&raw);
        ::tcsetattr(slave.Get(), TCSANOW, &raw);
    }
    static std::string Read(const posix::Descriptor& from) {
        std::string whole;
        for (pollfd waited{from.Get(), POLLIN, 0}; ::poll(&waited, 1, 0) == 1;) {
            char bytes[4096];
            const ssize_t length = ::read(from.Get(), bytes, sizeof bytes);
            whole.append(bytes, length > 0 ? static_cast<std::size_t>(length) : 0);
        }
        return whole;
    }
    posix::Descriptor master;
    posix::Descriptor slave;
};

TEST(StreamOutput, WaitsOnceForATerminalThatWasStopped) {
    const TestTerminal terminal;
    ASSERT_EQ(::tcflow(terminal.slave.Get(), TCOOFF), 0);
    StreamOutput output(terminal.slave.Get(), "lofter", kPlain, kShortWait);
    WriteManyLines(output);
    ASSERT_EQ(::tcflow(terminal.slave.Get(), TCOON), 0);
    output.Write(kInfoLevel, "awake");
    EXPECT_EQ(TestTerminal::Read(terminal.master), Lost(kMany) + "info lofter: awake\n");
    EXPECT_EQ(::fcntl(terminal.slave.Get(), F_GETFL) & O_NONBLOCK, 0);
}

TEST(StreamOutput, MakesNoOtherTerminalOfAPseudoTerminalsMaster) {
    const TestTerminal terminal;
    const std::set<int> before = OpenDescriptors();
    StreamOutput output(terminal.master.Get(), "lofter", kPlain, kShortWait);
    output.Write(kInfoLevel, "text");
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_TRUE(WaitUntil([&, all = std::string()]() mutable {
        all += TestTerminal::Read(terminal.slave);
        return all == "info lofter: text\n";
    }));
    // Until nothing more goes in.
    const auto start = std::chrono::steady_clock::now();
    for (int count = 0; count < 3000; ++count) {
        output.Write(kInfoLevel, "another line of some length, for a terminal that holds many of them");
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(50));
}

TEST(StreamOutput, WaitsOnceWhereNothingCanBeOpenedAgain) {
    const TemporaryDirectory noProc;
    EXPECT_EQ(lofter::test::InForkedChild([&] {
                  const FullPipe pipe(0);
                  lofter::test::EnterRoot(noProc.Path());
                  StreamOutput output(pipe.writer.Get(), "lofter", kPlain, kShortWait);
                  WriteManyLines(output);
                  pipe.Drain();
                  const std::string text(6000, 'x');
                  output.Write(kInfoLevel, text);
                  const std::string last = pipe.Drain();
                  return last.ends_with("xxx\n") ? "in pieces" : last;
              }),
              "in pieces");
}

TEST(StreamOutput, FollowsADescriptorThatIsRedirected) {
    const std::set<int> before = OpenDescriptors();
    {
        const FullPipe full(0);
        Channel channel;
        const FullPipe other(0);
        other.Drain();
        const posix::Descriptor target(::fcntl(full.writer.Get(), F_DUPFD_CLOEXEC, 3));
        StreamOutput output(target.Get(), "lofter", kPlain, kShortWait);
        output.Write(kInfoLevel, "dropped");
        for (const int next : {channel.Writer(), other.writer.Get()}) {
            ::dup3(next, target.Get(), O_CLOEXEC);
            output.Write(kInfoLevel, "not the same");
        }
        EXPECT_EQ(channel.Read(), "info lofter: not the same\n");
        EXPECT_EQ(other.Drain(), "info lofter: not the same\n");
    }
    EXPECT_EQ(OpenDescriptors(), before);
}

// The descriptors that writing has added to those before.
std::set<int> OpenedByWriting(StreamOutput& output, std::string_view text) {
    const std::set<int> before = OpenDescriptors();
    output.Write(kInfoLevel, text);
    std::set<int> opened = OpenDescriptors();
    for (const int number : before) {
        opened.erase(number);
    }
    return opened;
}

TEST(StreamOutput, OpensAgainOnceAndForItselfAlone) {
    const FullPipe pipe(0);
    pipe.Drain();
    StreamOutput output(pipe.writer.Get(), "lofter", kPlain);
    const std::set<int> opened = OpenedByWriting(output, "one");
    ASSERT_EQ(opened.size(), 1U);
    EXPECT_EQ(::fcntl(*opened.begin(), F_GETFD), FD_CLOEXEC);
    EXPECT_TRUE(OpenedByWriting(output, "two").empty());
}

TEST(StreamOutput, OpensOnceMoreWhenWhatItOpenedFails) {
    const FullPipe pipe(0);
    pipe.Drain();
    StreamOutput output(pipe.writer.Get(), "lofter", kPlain);
    const std::set<int> opened = OpenedByWriting(output, "before");
    ASSERT_EQ(opened.size(), 1U);
    // The same file, but one that takes nothing, as the description of a terminal that was hung up.
    ASSERT_EQ(::dup3(pipe.reader.Get(), *opened.begin(), O_CLOEXEC), *opened.begin());
    output.Write(kInfoLevel, "after");
    EXPECT_EQ(pipe.Drain(), "info lofter: before\ninfo lofter: after\n");
}

TEST(StreamOutput, NeverTakesTheNumberOfAStandardStream) {
    const FullPipe pipe(0);
    pipe.Drain();
    ForkedChild child([&] {
        ::close_range(0, 2, 0);
        StreamOutput(pipe.writer.Get(), "lofter", kPlain).Write(kInfoLevel, "child");
        int open = 0;
        for (int number = 0; number < 3; ++number) {
            open += ::fcntl(number, F_GETFD) < 0 ? 0 : 1;
        }
        return open;
    });
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_EQ(pipe.Drain(), "info lofter: child\n");
}

TEST(StreamOutput, LeavesADescriptorAloneThatHasTakenItsNumber) {
    const TemporaryDirectory directory;
    const std::string other = directory / "other";
    const FullPipe pipe(0);
    pipe.Drain();
    const int target = 3;
    ForkedChild child([&] {
        ::dup2(pipe.writer.Get(), target);
        StreamOutput output(target, "lofter", kPlain);
        output.Write(kInfoLevel, "one");
        const int highest = ::open("/dev/null", O_RDONLY);
        ::close_range(target + 1, ~0U, 0);
        for (int number = target + 1; number < highest; ++number) {
            if (::open(other.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600) != number) {
                return 1;
            }
        }
        output.Write(kInfoLevel, "two");
        for (int number = target + 1; number < highest; ++number) {
            if (::fcntl(number, F_GETFD) < 0) {
                return 2;
            }
        }
        return 0;
    });
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_EQ(pipe.Drain(), "info lofter: one\ninfo lofter: two\n");
    EXPECT_EQ(directory.Read("other"), "");
}

TEST(StreamOutput, LetsOnlyTheProcessThatLostLinesSaySo) {
    const FullPipe pipe(0);
    StreamOutput output(pipe.writer.Get(), "lofter", kPlain, kShortWait);
    output.Write(kInfoLevel, "dropped");
    pipe.Drain();
    ForkedChild child([&] {
        output.AfterFork();
        output.Write(kInfoLevel, "child");
        return 0;
    });
    EXPECT_EQ(child.Wait(), 0);
    output.Write(kInfoLevel, "parent");
    EXPECT_EQ(pipe.Drain(), "info lofter: child\n" + Lost(1) + "info lofter: parent\n");
}

TEST(StreamOutput, SpellsControlCharactersOutInLinesOfAnyLength) {
    Channel channel(SOCK_STREAM);
    StreamOutput output(channel.Writer(), "lofter", kPlain);
    output.Write(kInfoLevel, "a\x1b[2J\tb\nc\x9b");
    EXPECT_EQ(channel.Read(), "info lofter: a\\x1b[2J\tb\nc\\x9b\n");
    for (const std::size_t length : {1024U, 1025U, 10'000U}) {
        std::string spelledOut;
        for (std::size_t count = 0; count < length; ++count) {
            spelledOut += "\\x0d";
        }
        output.Write(kInfoLevel, std::string(length, '\r'));
        EXPECT_TRUE(channel.Read() == "info lofter: " + spelledOut + "\n") << length;
    }
}

TEST(StreamOutput, NeedsNoMemoryAndLosesNoMoreThanTheEndOfALongLineWithout) {
    Channel channel;
    StreamOutput output(channel.Writer(), "lofter", kPlain);
    const std::string longText(1500, '\r');
    {
        const lofter::test::FailingCall noMemory(lofter::test::Call::OperatorNew, 0);
        output.Write(kInfoLevel, "\r\r");
        output.Write(kInfoLevel, longText);
    }
    EXPECT_EQ(channel.Read(), "info lofter: \\x0d\\x0d\n");
    const std::string shortened = channel.Read();
    EXPECT_TRUE(shortened.starts_with("info lofter: \\x0d") && shortened.ends_with("\\x0d\n"));
    EXPECT_EQ(shortened.size(), std::string("info lofter: \n").size() + 4 * 1024);
}

}  // namespace
}  // namespace platform
