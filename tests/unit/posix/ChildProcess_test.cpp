#include "posix/ChildProcess.h"

#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "posix/Descriptor.h"
#include "support/ChildOutcome.h"
#include "support/SyscallFilter.h"

namespace lofter {
namespace {

bool IsOpen(int number) {
    return fcntl(number, F_GETFD) != -1;
}

TEST(CloseDescriptorsFrom, ClosesThatOneAndAllAboveAndNoneBelow) {
    const std::string outcome = test::InForkedChild([] {
        for (const int number : {5, 6, 7, 100, 900}) {
            dup2(STDIN_FILENO, number);
        }
        posix::CloseDescriptorsFrom(6);
        std::string open;
        for (const int number : {0, 1, 2, 5, 6, 7, 100, 900}) {
            open += IsOpen(number) ? std::to_string(number) + " " : "";
        }
        return open;
    });
    EXPECT_EQ(outcome, "0 1 2 5 ");
}

TEST(CloseDescriptorsFrom, ReachesDescriptorsAboveTheLimitOfToday) {
    const std::string outcome = test::InForkedChild([] {
        dup2(STDIN_FILENO, 200);
        const rlimit limit{100, 100};
        setrlimit(RLIMIT_NOFILE, &limit);
        posix::CloseDescriptorsFrom(STDERR_FILENO + 1);
        return IsOpen(200) ? "open" : "closed";
    });
    EXPECT_EQ(outcome, "closed");
}

TEST(CloseDescriptorsFrom, ClosesOneByOneWhereTheSystemHasNoCallForARange) {
    const std::string outcome = test::InForkedChild([] {
        for (const int number : {5, 6, 7, 100}) {
            dup2(STDIN_FILENO, number);
        }
        test::FilterSyscalls({{.number = SYS_close_range, .error = ENOSYS}});
        posix::CloseDescriptorsFrom(6);
        std::string open;
        for (const int number : {0, 1, 2, 5, 6, 7, 100}) {
            open += IsOpen(number) ? std::to_string(number) + " " : "";
        }
        return open;
    });
    EXPECT_EQ(outcome, "0 1 2 5 ");
}

TEST(WaitForChild, GivesTheStatusOfTheChild) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(7);
    }
    int status = 0;
    ASSERT_TRUE(posix::WaitForChild(child, status));
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 7);
}

TEST(WaitForChild, SaysThatThereIsNoSuchChild) {
    int status = 0;
    EXPECT_FALSE(posix::WaitForChild(getpid(), status));
    EXPECT_EQ(errno, ECHILD);
}

// The waiting process is signalled once it waits, by the very child that it waits for.
TEST(WaitForChild, GoesOnWaitingAcrossSignals) {
    const std::string outcome = test::InForkedChild([] {
        struct sigaction action {};
        action.sa_handler = [](int) {
        };  // without SA_RESTART
        sigaction(SIGUSR1, &action, nullptr);
        const pid_t child = fork();
        if (child == 0) {
            for (int count = 0; count < 1000; ++count) {
                kill(getppid(), SIGUSR1);
                sched_yield();
            }
            _exit(3);
        }
        int status = 0;
        const bool waited = posix::WaitForChild(child, status);
        return std::string(waited ? "waited " : "gave up ") + std::to_string(WEXITSTATUS(status));
    });
    EXPECT_EQ(outcome, "waited 3");
}

}  // namespace
}  // namespace lofter
