#include "tslibs/StreamOutput.h"

#include <chrono>
#include <csignal>
#include <future>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/Channel.h"
#include "support/ForkedChild.h"

namespace platform {
namespace {

using lofter::test::Channel;
using lofter::test::ForkedChild;

constexpr StreamOutput::Form kPlain{kInfoLevel, false, false};

// A pipe whose writing end does not block, filled to the brim.
struct FullPipe {
    FullPipe() {
        int ends[2];
        EXPECT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
        reader.Reset(ends[0]);
        writer.Reset(ends[1]);
        while (::write(writer.Get(), "x", 1) == 1) {
        }
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
    output.Write(125, "text");
    const std::string line = channel.Read();
    EXPECT_TRUE(testing::internal::RE::FullMatch(
        line,
        "20[0-9][0-9]-[0-9][0-9]-[0-9][0-9] [0-9][0-9]:[0-9][0-9]:[0-9][0-9]\\.[0-9][0-9][0-9] info lofter: text\n"))
        << line;
}

TEST(StreamOutput, LeavesOutWhatTheFormDoesNotAskFor) {
    Channel channel;
    StreamOutput(channel.Writer(), "lofter", {kInfoLevel, true, false}).Write(125, "text");
    const std::string line = channel.Read();
    EXPECT_TRUE(testing::internal::RE::FullMatch(
        line, "20[0-9][0-9]-[0-9][0-9]-[0-9][0-9] [0-9][0-9]:[0-9][0-9]:[0-9][0-9] info lofter: text\n"))
        << line;
    StreamOutput(channel.Writer(), "lofter", kPlain).Write(125, "text");
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
    errors.Write(110, "coarse enough");
    EXPECT_EQ(channel.Read(), "error lofter: coarse enough\n");
}

TEST(StreamOutput, WritesEachMessageAtOnceWithItsInnerLineEnds) {
    Channel channel;
    StreamOutput output(channel.Writer(), "lofter", kPlain);
    output.Write(125, "two\nlines");
    output.Write(125, "");
    EXPECT_EQ(channel.Read(), "info lofter: two\nlines\n");
    EXPECT_EQ(channel.Read(), "info lofter: \n");
}

TEST(StreamOutput, GoesOnAfterAPartialWrite) {
    Channel channel(SOCK_STREAM);
    // Takes but a part of it at a time.
    ASSERT_EQ(::fcntl(channel.Writer(), F_SETFL, O_NONBLOCK), 0);
    const std::string text(3'000'000, 'x');
    auto reading = std::async(std::launch::async, [&] {
        std::string whole;
        while (!whole.ends_with('\n')) {
            whole += channel.Read();
        }
        return whole;
    });
    StreamOutput(channel.Writer(), "lofter", kPlain).Write(125, text);
    EXPECT_TRUE(reading.get() == "info lofter: " + text + "\n");
}

TEST(StreamOutput, SurvivesAReaderThatIsGone) {
    ForkedChild child([] {
        ::signal(SIGPIPE, SIG_DFL);
        FullPipe pipe;
        pipe.reader.Reset();
        StreamOutput(pipe.writer.Get(), "lofter", kPlain).Write(125, "lost");
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
        StreamOutput(pipe.writer.Get(), "lofter", kPlain).Write(125, "lost");
        sigset_t pending;
        ::sigpending(&pending);
        return ::sigismember(&pending, SIGPIPE) == 1 ? 0 : 1;
    });
    EXPECT_EQ(child.Wait(), 0);
}

TEST(StreamOutput, IgnoresFailures) {
    StreamOutput(-1, "lofter", kPlain).Write(125, "nowhere");
    const posix::Descriptor full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    StreamOutput(full.Get(), "lofter", kPlain).Write(125, "no space");
}

TEST(StreamOutput, WaitsOnceForANonBlockingReaderThatIsStuck) {
    const FullPipe pipe;
    StreamOutput output(pipe.writer.Get(), "lofter", kPlain);
    const auto start = std::chrono::steady_clock::now();
    for (int count = 0; count < 200; ++count) {
        output.Write(125, "dropped");
    }
    // Each wait would be a fifth of a second.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    pipe.Drain();
    output.Write(125, "awake");
    EXPECT_EQ(pipe.Drain(), "info lofter: awake\n");
}

}  // namespace
}  // namespace platform
