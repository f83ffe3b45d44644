#include "krxctl/ProgressScreen.h"

#include <chrono>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include "krxctl/KernelProgressScreenImpl.h"
#include "support/ForkedChild.h"
#include "support/LogCapture.h"
#include "support/OpenDescriptors.h"
#include "support/TemporaryDirectory.h"
#include "tslibs/LogOutput.h"

namespace platform {
namespace {

using lofter::test::ForkedChild;
using lofter::test::LogCapture;
using Texts = std::vector<std::string>;

// A terminal, and what is shown on it.
class Terminal {
  public:
    explicit Terminal(unsigned short columns = 0) {
        int ends[2];
        char name[256];
        const winsize size{25, columns, 0, 0};
        EXPECT_EQ(::openpty(&ends[0], &ends[1], name, nullptr, &size), 0);
        master.Reset(ends[0]);
        slave.Reset(ends[1]);
        path = name;
    }

    // What was drawn since the last look, without waiting: drawing is over when the call that draws returns.
    std::string Shown() const {
        std::string shown;
        pollfd waited{master.Get(), POLLIN, 0};
        while (::poll(&waited, 1, 0) == 1 && (waited.revents & POLLIN) != 0) {
            char bytes[4096];
            const ssize_t length = ::read(master.Get(), bytes, sizeof bytes);
            shown.append(bytes, length < 0 ? 0 : static_cast<std::size_t>(length));
        }
        return shown;
    }

    std::string path;
    posix::Descriptor master;
    posix::Descriptor slave;
};

std::string Drawn(const std::string& line) {
    return "\r\x1b[2K" + line + "\r";
}

TEST(ProgressScreen, RedrawsOneLineInPlace) {
    const LogCapture capture;
    const Terminal terminal;
    ProgressScreen screen(terminal.path.c_str());
    screen.ProgressText("Activating");
    EXPECT_EQ(terminal.Shown(), Drawn("Activating"));
    screen.StatusText("net");
    EXPECT_EQ(terminal.Shown(), Drawn("Activating net"));
    screen.Step();
    screen.Step();
    EXPECT_EQ(terminal.Shown(), Drawn("Activating [1] net") + Drawn("Activating [2] net"));
    screen.StatusText("");
    EXPECT_EQ(terminal.Shown(), Drawn("Activating [2]"));
    EXPECT_EQ(capture.Lines(), Texts{});
}

TEST(ProgressScreen, ErasesALineThatHasNothingToShowOnceAndThenLeavesItToOthers) {
    const Terminal terminal;
    ProgressScreen screen(terminal.path.c_str());
    screen.ProgressText("");
    screen.StatusText("");
    EXPECT_EQ(terminal.Shown(), "");
    screen.ProgressText("Activating");
    screen.StatusText("net");
    EXPECT_EQ(terminal.Shown(), Drawn("Activating") + Drawn("Activating net"));
    screen.ProgressText("");
    screen.StatusText("");
    EXPECT_EQ(terminal.Shown(), Drawn("net") + Drawn(""));
    screen.ProgressText("");
    screen.StatusText("");
    EXPECT_EQ(terminal.Shown(), "");
    screen.StatusText("disk");
    EXPECT_EQ(terminal.Shown(), Drawn("disk"));
}

TEST(ProgressScreen, CutsTheLineToTheTerminalsWidth) {
    const Terminal narrow(10);
    ProgressScreen(narrow.path.c_str()).ProgressText("12345678\xc3\xa4");
    EXPECT_EQ(narrow.Shown(), Drawn("12345678"));
    const Terminal unknown(0);
    ProgressScreen(unknown.path.c_str()).ProgressText(std::string(200, 'x'));
    EXPECT_EQ(unknown.Shown(), Drawn(std::string(79, 'x')));
}

TEST(ProgressScreen, LetsNoTextProgramTheTerminal) {
    const Terminal terminal;
    ProgressScreen(terminal.path.c_str()).ProgressText("a\x1b[1mb\nc\t\r\x7f");
    EXPECT_EQ(terminal.Shown(), Drawn("a\\x1b[1mb c \\x0d\\x7f"));
}

TEST(ProgressScreen, LogsTextsWhereTheConsoleIsMissingOrNoTerminal) {
    const lofter::test::TemporaryDirectory directory;
    for (const std::string& console : {directory / "missing", directory.Write("file", ""), std::string("/dev/null")}) {
        const LogCapture capture;
        ProgressScreen screen(console.c_str());
        screen.ProgressText("100%s");
        screen.StatusText("");
        screen.Step();
        screen.StatusText("status");
        EXPECT_EQ(capture.Entries(), (std::vector<LogCapture::Entry>{{kInfoLevel, "100%s"}, {kInfoLevel, "status"}}))
            << console;
    }
    EXPECT_FALSE(std::filesystem::exists(directory / "missing"));
    EXPECT_EQ(directory.Read("file"), "");
}

TEST(ProgressScreen, LogsTextsOnceTheTerminalIsGone) {
    const LogCapture capture;
    Terminal terminal;
    ProgressScreen screen(terminal.path.c_str());
    screen.ProgressText("drawn");
    terminal.master.Reset();
    screen.StatusText("logged");
    screen.Step();
    screen.StatusText("logged too");
    EXPECT_EQ(capture.Lines(kInfoLevel), (Texts{"logged", "logged too"}));
}

TEST(ProgressScreen, LogsATextThatWasTakenAwayAndPutBackOnce) {
    const LogCapture capture;
    ProgressScreen screen("/dev/null");
    for (int question = 0; question < 3; ++question) {
        screen.ProgressText("Activating");
        screen.ProgressText("");
    }
    EXPECT_EQ(capture.Lines(kInfoLevel), Texts{"Activating"});
    screen.ProgressText("one");
    screen.ProgressText("one");
    screen.ProgressText("");
    screen.ProgressText("Activating");
    EXPECT_EQ(capture.Lines(kInfoLevel), (Texts{"Activating", "one", "one", "Activating"}));
}

TEST(ProgressScreen, OpensATerminalAgainThatWasHungUp) {
    const LogCapture capture;
    const lofter::test::TemporaryDirectory directory;
    const std::filesystem::path console = directory / "console";
    Terminal first;
    const Terminal second;
    std::filesystem::create_symlink(first.path, console);
    ProgressScreen screen(console.c_str());
    screen.ProgressText("before");
    EXPECT_EQ(first.Shown(), Drawn("before"));
    first.master.Reset();
    std::filesystem::remove(console);
    std::filesystem::create_symlink(second.path, console);
    screen.ProgressText("");
    screen.ProgressText("after");
    EXPECT_EQ(second.Shown(), Drawn("") + Drawn("after"));
    EXPECT_EQ(capture.Lines(), Texts{});
}

TEST(ProgressScreen, IsNotHeldUpByATerminalThatWasStopped) {
    const LogCapture capture;
    const Terminal terminal;
    ProgressScreen screen(terminal.path.c_str());
    ASSERT_EQ(::tcflow(terminal.slave.Get(), TCOOFF), 0);
    const auto start = std::chrono::steady_clock::now();
    for (int count = 0; count < 100'000; ++count) {
        screen.ProgressText("unseen");
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    ASSERT_EQ(::tcflow(terminal.slave.Get(), TCOON), 0);
    terminal.Shown();
    screen.ProgressText("seen");
    EXPECT_TRUE(terminal.Shown().ends_with(Drawn("seen")));
    EXPECT_EQ(capture.Lines(), Texts{});
}

TEST(ProgressScreen, AcquiresNoControllingTerminal) {
    ForkedChild child([] {
        ::setsid();
        int ends[2];
        char name[256];
        ::openpty(&ends[0], &ends[1], name, nullptr, nullptr);
        ProgressScreen screen(name);
        screen.ProgressText("text");
        return ::open("/dev/tty", O_RDWR) == -1 ? 0 : 1;
    });
    EXPECT_EQ(child.Wait(), 0);
}

TEST(ProgressScreen, KeepsItsTerminalToItself) {
    const std::set<int> before = lofter::test::OpenDescriptors();
    {
        const Terminal terminal;
        const std::set<int> withTerminal = lofter::test::OpenDescriptors();
        const ProgressScreen screen(terminal.path.c_str());
        for (const int number : lofter::test::OpenDescriptors()) {
            EXPECT_TRUE(withTerminal.contains(number) || ::fcntl(number, F_GETFD) == FD_CLOEXEC);
        }
    }
    EXPECT_EQ(lofter::test::OpenDescriptors(), before);
}

TEST(ProgressScreen, MayBeDrawnByManyThreads) {
    const LogCapture capture;
    ProgressScreen screen("/dev/null");
    std::vector<std::thread> threads;
    for (int number = 0; number < 8; ++number) {
        threads.emplace_back([&screen, number] {
            for (int count = 0; count < 100; ++count) {
                screen.ProgressText("thread " + std::to_string(number));
                screen.Step();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(capture.Lines(kInfoLevel).size(), 800U);
}

TEST(KernelProgressScreen, AcceptsTextsAndStepsWhateverTheConsoleIs) {
    KrxCtl::System::KernelProgressScreenImpl screen;
    screen.ProgressText("");
    screen.StatusText("");
    screen.Step();
}

}  // namespace
}  // namespace platform
