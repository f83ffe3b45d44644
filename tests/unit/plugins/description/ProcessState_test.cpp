#include "plugins/description/ProcessState.h"

#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/ForkedChild.h"
#include "support/OpenDescriptors.h"

namespace lofter {
namespace {

bool IsBlocked(int number) {
    sigset_t blocked;
    sigprocmask(SIG_SETMASK, nullptr, &blocked);
    return sigismember(&blocked, number) == 1;
}

TEST(ProcessState, PutsTheWorkingDirectoryBack) {
    const std::filesystem::path before = std::filesystem::current_path();
    {
        const ProcessState state;
        std::filesystem::current_path("/usr");
    }
    EXPECT_EQ(std::filesystem::current_path(), before);
}

TEST(ProcessState, PutsTheFileModeMaskBack) {
    umask(027);
    {
        const ProcessState state;
        EXPECT_EQ(umask(0777), 027U);
    }
    EXPECT_EQ(umask(027), 027U);
}

TEST(ProcessState, PutsTheEnvironmentBack) {
    std::string changed = "changed=before";
    std::string removed = "removed=before";
    char* own[] = {removed.data(), changed.data(), nullptr};
    char** const before = std::exchange(environ, own);
    {
        const ProcessState state;
        static char variable[] = "changed=after";
        putenv(variable);
        unsetenv("removed");
        setenv("added", "after", 1);
    }
    EXPECT_STREQ(getenv("changed"), "before");
    EXPECT_STREQ(getenv("removed"), "before");
    EXPECT_EQ(getenv("added"), nullptr);
    EXPECT_EQ(environ, own);
    environ = before;
}

TEST(ProcessState, PutsTimersBack) {
    {
        const ProcessState state;
        alarm(1000);
    }
    EXPECT_EQ(alarm(0), 0U);
    alarm(1000);
    {
        const ProcessState state;
        alarm(0);
    }
    EXPECT_GT(alarm(0), 0U);
}

TEST(ProcessState, PutsSignalsBack) {
    {
        const ProcessState state;
        std::signal(SIGCHLD, SIG_IGN);
        std::signal(SIGUSR1, [](int) {});
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_SETMASK, &all, nullptr);
    }
    EXPECT_FALSE(IsBlocked(SIGTERM));
    EXPECT_EQ(std::signal(SIGCHLD, SIG_DFL), SIG_DFL);
    EXPECT_EQ(std::signal(SIGUSR1, SIG_DFL), SIG_DFL);
}

TEST(ProcessState, EndsACopyOfTheProcess) {
    pid_t copy = -1;
    {
        const ProcessState state;
        copy = fork();
    }
    EXPECT_EQ(test::WaitForChild(copy), 0);  // the copy does not get here
}

TEST(ProcessState, LeavesNoDescriptorBehind) {
    const std::set<int> before = test::OpenDescriptors();
    { const ProcessState state; }
    EXPECT_EQ(test::OpenDescriptors(), before);
}

}  // namespace
}  // namespace lofter
