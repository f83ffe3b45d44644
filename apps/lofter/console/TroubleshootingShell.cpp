#include "console/TroubleshootingShell.h"

#include <array>
#include <cerrno>
#include <cstring>

#include <signal.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "base/Logging.h"
#include "console/Terminal.h"
#include "posix/ChildProcess.h"

namespace lofter {

namespace {

constexpr char kEraseLine[] = "\033[2K";

// A signal's default action, as the system call takes it.
constexpr std::size_t kSignalSetSize = (NSIG - 1) / 8;
struct KernelSignalAction {
    void (*handler)(int) = SIG_DFL;
    unsigned long flags = 0;
    unsigned long restorer = 0;
    std::array<unsigned char, kSignalSetSize> mask{};
};

// The boot ignores and handles signals for its own purposes, and inherits ignored ones; the operator's shell and its
// jobs do not. Past the C library, which refuses the two signals that it keeps for itself: a boot may inherit those
// ignored, too, and nothing that uses them runs between here and the exec.
void ResetSignals() {
    const KernelSignalAction byDefault;
    for (int number = 1; number < NSIG; ++number) {
        ::syscall(SYS_rt_sigaction, number, &byDefault, nullptr, kSignalSetSize);
    }
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

// The child, from fork to exec. Other threads' locks may be held for ever here; only the log's own is known not to be.
// Hence also the plain error texts: strerror may translate, which locks.
[[noreturn]] void BecomeShell(const char* program, char* const arguments[]) {
    if (::setsid() == -1) {
        Log_Level(kError, "unable to create new session: %s\n", ::strerrordesc_np(errno));
        ::_exit(1);
    }
    posix::CloseDescriptorsFrom(STDERR_FILENO + 1);
    ::ioctl(STDIN_FILENO, TIOCSCTTY, 1);  // 1: even from another session
    ResetSignals();
    ::execv(program, arguments);
    Log_Level(kError, "unable to exec shell: %s\n", ::strerrordesc_np(errno));
    ::_exit(1);
}

}  // namespace

void RunTroubleshootingShell(const char* program) {
    const StandardStreams streams;
    const std::array<char*, 2> arguments{const_cast<char*>(program), nullptr};

    const pid_t child = ::fork();
    if (child == -1) {
        Log_Level(kError, "failed to fork - unable to launch troubleshooting shell: %s\n", std::strerror(errno));
        return;
    }
    if (child == 0) {
        BecomeShell(program, arguments.data());
    }
    int ignoredStatus = 0;  // however the shell ended, the boot goes on
    posix::WaitForChild(child, ignoredStatus);
    streams.Restore();
    WriteToTerminal(kEraseLine);
}

}  // namespace lofter
