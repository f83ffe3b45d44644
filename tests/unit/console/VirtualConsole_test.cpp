#include "console/VirtualConsole.h"

#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/vt.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include "support/OpenDescriptors.h"
#include "support/SyscallFilter.h"
#include "support/TerminalProcess.h"

namespace lofter {
namespace {

using test::SyscallRule;

SyscallRule Activate(int terminal, int error) {
    return {SYS_ioctl, VT_ACTIVATE, terminal, error, false};
}
SyscallRule ActivateIsSeen(int terminal) {
    return {SYS_ioctl, VT_ACTIVATE, terminal, 0, true};
}
SyscallRule WaitIsSeen(int terminal) {
    return {SYS_ioctl, VT_WAITACTIVE, terminal, 0, true};
}

// Whether switching to the terminal, under the rules, makes the call that ends the process.
bool Sees(const std::vector<SyscallRule>& rules, int terminal) {
    test::TerminalProcess process([&] {
        test::FilterSyscalls(rules);
        SwitchConsole(terminal, "/proc/self/fd/0");
        return std::string();
    });
    const int status = process.WaitForEnd();
    EXPECT_TRUE((WIFEXITED(status) && WEXITSTATUS(status) == 0) || (WIFSIGNALED(status) && WTERMSIG(status) == SIGSYS));
    return WIFSIGNALED(status);
}

TEST(VirtualConsole, ActivatesTheTerminal) {
    EXPECT_TRUE(Sees({ActivateIsSeen(1)}, 1));
    EXPECT_TRUE(Sees({ActivateIsSeen(11)}, 11));
}

TEST(VirtualConsole, DoesNotWaitForATerminalThatWasActivated) {
    EXPECT_FALSE(Sees({Activate(1, 0), WaitIsSeen(1)}, 1));
}

TEST(VirtualConsole, WaitsForTheSameTerminalOnlyIfItCannotBeActivated) {
    EXPECT_TRUE(Sees({Activate(11, ENXIO), WaitIsSeen(11)}, 11));
}

TEST(VirtualConsole, OpensTheConsoleForReadingAndWriting) {
    EXPECT_TRUE(Sees({{SYS_openat, -1, O_RDWR | O_NOCTTY | O_CLOEXEC, 0, true}}, 1));
}

TEST(VirtualConsole, ClosesTheConsole) {
    const auto before = test::OpenDescriptors();
    SwitchConsole(1, "/dev/null");
    EXPECT_EQ(test::OpenDescriptors(), before);
}

TEST(VirtualConsole, IsSilentWithoutAConsole) {
    test::TerminalProcess process([] {
        SwitchConsole(1, "/no/such/console");
        return std::string("done");
    });
    std::string written;
    EXPECT_EQ(process.WaitForResult(&written), "done");
    EXPECT_EQ(written, "");
}

TEST(VirtualConsole, IsSilentWhenTheConsoleIsNoTerminal) {
    test::TerminalProcess process([] {
        SwitchConsole(1, "/dev/null");
        return std::string("done");
    });
    std::string written;
    EXPECT_EQ(process.WaitForResult(&written), "done");
    EXPECT_EQ(written, "");
}

TEST(VirtualConsole, NeverBecomesTheControllingTerminal) {
    test::TerminalProcess process([] {
        ::setsid();
        SwitchConsole(1, "/proc/self/fd/0");
        const posix::Descriptor controlling(::open("/dev/tty", O_RDWR | O_CLOEXEC));
        return std::string(controlling ? "taken" : "none");
    });
    EXPECT_EQ(process.WaitForResult(), "none");
}

}  // namespace
}  // namespace lofter
