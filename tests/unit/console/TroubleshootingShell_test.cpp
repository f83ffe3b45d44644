#include "console/TroubleshootingShell.h"

#include <array>
#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "base/Logging.h"
#include "support/SyscallFilter.h"
#include "support/TerminalProcess.h"
#include "tslibs/dictionary.h"
#include "tslibs/log.h"

namespace lofter {
namespace {

using test::TerminalProcess;

constexpr char kErased[] = "\033[2K";

// Runs the shell with everything that is logged, also by the child, on the terminal.
std::string RunShell(const char* program = "/bin/sh") {
    Log_AddOutput(Log_NewStdioOutput(Dictionary_Create()));
    RunTroubleshootingShell(program);
    return "goes on";
}

// As the terminal shows what is logged as an error.
std::string Error(const std::string& text) {
    return std::string("error ") + program_invocation_short_name + ": " + text + "\n";
}

// Past the C library, which refuses the two signals that it keeps for itself.
void Ignore(int number) {
    struct {
        void (*handler)(int) = SIG_IGN;
        std::array<unsigned long, 3> flagsRestorerMask{};
    } action;
    ASSERT_EQ(::syscall(SYS_rt_sigaction, number, &action, nullptr, (NSIG - 1) / 8), 0);
}

// The terminal's modes as far as programs change them.
std::array<tcflag_t, 4> Flags(const termios& modes) {
    return {modes.c_iflag, modes.c_oflag, modes.c_cflag, modes.c_lflag};
}

TEST(TroubleshootingShell, ErasesTheLineWhenTheShellHasEnded) {
    TerminalProcess boot([] { return RunShell(); });
    boot.Type("exit\n");
    std::string written;
    EXPECT_EQ(boot.WaitForResult(&written), "goes on");
    EXPECT_TRUE(written.ends_with(kErased)) << written;
}

TEST(TroubleshootingShell, LeadsASessionThatControlsTheTerminal) {
    TerminalProcess boot([] { return RunShell(); });
    // The sixth and seventh word of the status: session and controlling terminal.
    boot.Type("set -- $$ $(cut -d' ' -f6,7 /proc/$$/stat); test $1 = $2 && test $3 != 0 && echo lea''ds\n");
    boot.WaitForText("leads\n");
    boot.Type("echo spoken >/dev/tty; exit\n");
    boot.WaitForText("spoken\n");
    boot.WaitForResult();
}

TEST(TroubleshootingShell, HasItselfAsItsOnlyArgument) {
    TerminalProcess boot([] { return RunShell(); });
    boot.Type("echo \"arguments: $(tr '\\0' '|' </proc/$$/cmdline)\"; exit\n");
    boot.WaitForText("arguments: /bin/sh|\n");
    boot.WaitForResult();
}

TEST(TroubleshootingShell, TakesTheTerminalOverEvenFromAnotherSession) {
    TerminalProcess boot([] {
        test::FilterSyscalls({{SYS_ioctl, TIOCSCTTY, 1, 0, true}});
        return RunShell();
    });
    // The filter ends the shell at the call with that argument, before it is a shell.
    std::string written;
    EXPECT_EQ(boot.WaitForResult(&written), "goes on");
    EXPECT_EQ(written, kErased);
}

TEST(TroubleshootingShell, GetsTheJobControlKeys) {
    TerminalProcess boot([] { return RunShell(); });
    boot.Type("trap 'echo interrup''ted' INT; echo read''y; read line\n");
    boot.WaitForText("ready\n");
    boot.Type("\003");
    boot.WaitForText("interrupted\n");
    boot.Type("exit\nexit\n");  // the first may be the line that is still being read
    EXPECT_EQ(boot.WaitForResult(), "goes on");
}

TEST(TroubleshootingShell, HasNoDescriptorsButTheStandardStreams) {
    TerminalProcess boot([] {
        const posix::Descriptor file(::open("/dev/null", O_RDONLY));
        ::dup2(file.Get(), 5);
        ::dup2(file.Get(), 900);
        return RunShell();
    });
    boot.Type("ls -l /proc/$$/fd | grep -c dev/null | sed 's/^/open: /'; exit\n");
    EXPECT_NE(boot.WaitForText("open: 0\n"), "");
    boot.WaitForResult();
}

TEST(TroubleshootingShell, HasDefaultSignals) {
    TerminalProcess boot([] {
        // 32 and 33 as well, as the children of some programs inherit it.
        for (const int number : {SIGPIPE, SIGINT, SIGQUIT, SIGHUP, SIGTERM, 32, 33}) {
            Ignore(number);
        }
        sigset_t some;
        ::sigemptyset(&some);
        ::sigaddset(&some, SIGUSR1);
        ::sigprocmask(SIG_BLOCK, &some, nullptr);
        return RunShell();
    });
    boot.Type("sh -c 'grep -E \"^Sig(Ign|Blk)\" /proc/self/status' | tr -d '\\t\\n' | sed 's/$/ is al''l/'; exit\n");
    EXPECT_NE(boot.WaitForText(" is all").find("SigBlk:0000000000000000SigIgn:0000000000000000"), std::string::npos);
    boot.WaitForResult();
}

TEST(TroubleshootingShell, IsFollowedByTheBootHoweverItEnds) {
    for (const char* end : {"exit 3\n", "kill -KILL $$\n", "\004"}) {
        TerminalProcess boot([] { return RunShell(); });
        const auto before = Flags(boot.initialModes);
        boot.Type("echo read''y\n");
        boot.WaitForText("ready\n");
        boot.Type(end);
        std::string written;
        EXPECT_EQ(boot.WaitForResult(&written), "goes on") << end;
        EXPECT_TRUE(written.ends_with(kErased)) << end;
        EXPECT_EQ(Flags(boot.terminal.Modes()), before) << end;
    }
}

TEST(TroubleshootingShell, LeavesTheTerminalAsItWasBefore) {
    TerminalProcess boot([] { return RunShell(); });
    const auto before = Flags(boot.initialModes);
    boot.Type("stty raw -echo; echo change''d\n");
    boot.WaitForText("changed\n");
    EXPECT_NE(Flags(boot.terminal.Modes()), before);
    boot.Type("kill -KILL $$\n");
    boot.WaitForResult();
    EXPECT_EQ(Flags(boot.terminal.Modes()), before);
}

TEST(TroubleshootingShell, IsWaitedForThroughInterruptions) {
    TerminalProcess boot([] {
        struct sigaction action {};
        action.sa_handler = [](int) {
            [[maybe_unused]] const auto written = ::write(STDOUT_FILENO, "signal\n", 7);
        };
        ::sigaction(SIGUSR1, &action, nullptr);  // without SA_RESTART
        return RunShell();
    });
    boot.Type("echo fir''st\n");
    boot.WaitForText("first\n");
    ASSERT_EQ(::kill(boot.Id(), SIGUSR1), 0);
    EXPECT_EQ(boot.WaitForText("signal\n").find(kErased), std::string::npos);
    boot.Type("echo seco''nd; exit\n");
    EXPECT_EQ(boot.WaitForText("second\n").find(kErased), std::string::npos);
    EXPECT_EQ(boot.WaitForResult(), "goes on");
}

TEST(TroubleshootingShell, IsReportedWhenItCannotBeForked) {
    TerminalProcess boot([] {
        test::FilterSyscalls({{.number = SYS_clone, .error = EAGAIN}});
        return RunShell();
    });
    std::string written;
    EXPECT_EQ(boot.WaitForResult(&written), "goes on");
    EXPECT_EQ(written,
              Error("failed to fork - unable to launch troubleshooting shell: Resource temporarily unavailable"))
        << "nothing was started, so nothing is erased";
}

TEST(TroubleshootingShell, IsReportedWhenItCannotHaveASession) {
    TerminalProcess boot([] {
        test::FilterSyscalls({{SYS_setsid, -1, -1, EPERM, false}});
        return RunShell();
    });
    std::string written;
    EXPECT_EQ(boot.WaitForResult(&written), "goes on");
    EXPECT_EQ(written, Error("unable to create new session: Operation not permitted") + kErased);
}

TEST(TroubleshootingShell, IsReportedWhenItIsNotThere) {
    TerminalProcess boot([] { return RunShell("/no/such/shell"); });
    std::string written;
    EXPECT_EQ(boot.WaitForResult(&written), "goes on");
    EXPECT_EQ(written, Error("unable to exec shell: No such file or directory") + kErased);
}

TEST(TroubleshootingShell, WorksWithoutATerminal) {
    TerminalProcess boot([] {
        std::array<int, 2> ends{};
        EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
        EXPECT_EQ(::write(ends[1], "echo piped\n", 11), 11);
        ::dup2(ends[0], STDIN_FILENO);
        posix::Descriptor(ends[0]).Reset();
        posix::Descriptor(ends[1]).Reset();
        return RunShell();
    });
    std::string written;
    EXPECT_EQ(boot.WaitForResult(&written), "goes on");
    EXPECT_EQ(written, std::string("piped\n") + kErased);
}

}  // namespace
}  // namespace lofter
