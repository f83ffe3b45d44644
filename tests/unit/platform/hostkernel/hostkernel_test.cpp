#include "hostkernel/hostkernel.h"

#include <array>
#include <cerrno>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include "posix/Descriptor.h"
#include "support/Channel.h"
#include "support/ForkedChild.h"
#include "support/OpenDescriptors.h"
#include "support/SignalsOf.h"
#include "support/TemporaryDirectory.h"

namespace {

using lofter::test::Channel;
using lofter::test::ForkedChild;
using lofter::test::OpenDescriptors;
using lofter::test::TemporaryDirectory;
using lofter::test::WaitForChild;
using posix::Descriptor;

// One call with everything at a usual value, to be varied.
struct Call {
    explicit Call(std::vector<std::string> commandWords) : words(std::move(commandWords)) {}

    int Run() {
        std::vector<char*> arguments;
        for (std::string& word : words) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        char path[] = "VARIABLE=value";
        char* const environment[] = {path, nullptr};
        HostKernelSpawnRecord record{3, userId, groupId, 0, &process};
        return HostKernel_ForkExec(words[0].c_str(), arguments.data(), environment, workingDirectory, streams.data(),
                                   &record);
    }

    std::vector<std::string> words;
    posix::Descriptor null{::open("/dev/null", O_RDWR | O_CLOEXEC)};
    posix::Descriptor root{::open("/", O_RDONLY | O_CLOEXEC)};
    std::array<int, 3> streams{null.Get(), null.Get(), null.Get()};
    int workingDirectory = root.Get();
    std::uint32_t userId = ::getuid();
    std::uint32_t groupId = ::getgid();
    pid_t process = -1;
};

std::string OutputOf(Call call) {
    Channel output;
    call.streams[1] = output.Writer();
    EXPECT_EQ(call.Run(), 0);
    const std::string text = output.ReadToEnd();
    EXPECT_EQ(WaitForChild(call.process), 0);
    return text;
}

TEST(ForkExec, RunsTheProgramWithItsArgumentsAndEnvironment) {
    EXPECT_EQ(OutputOf(Call({"/bin/echo", "one", "two"})), "one two\n");
    EXPECT_EQ(OutputOf(Call({"/usr/bin/env"})), "VARIABLE=value\n");
}

TEST(ForkExec, StoresTheProcessIdOfAChildOfTheCaller) {
    Call call({"/bin/sh", "-c", "exit 3"});
    ASSERT_EQ(call.Run(), 0);
    EXPECT_EQ(WaitForChild(call.process), 3);
}

TEST(ForkExec, ConnectsTheStandardStreams) {
    Channel input(SOCK_STREAM);
    Channel output;
    Channel errors;
    Call call({"/bin/sh", "-c", "read line; echo \"$line\"; echo error >&2"});
    call.streams = {input.Reader(), output.Writer(), errors.Writer()};
    ASSERT_EQ(::write(input.Writer(), "input\n", 6), 6);
    ASSERT_EQ(call.Run(), 0);
    EXPECT_EQ(output.ReadToEnd(), "input\n");
    EXPECT_EQ(errors.ReadToEnd(), "error\n");
    EXPECT_EQ(WaitForChild(call.process), 0);
}

TEST(ForkExec, GivesOneDescriptorToSeveralStreams) {
    Channel output;
    Call call({"/bin/sh", "-c", "echo output; echo error >&2"});
    call.streams = {call.null.Get(), output.Writer(), output.Writer()};
    ASSERT_EQ(call.Run(), 0);
    EXPECT_EQ(output.ReadToEnd(), "output\nerror\n");
    EXPECT_EQ(WaitForChild(call.process), 0);
}

// Runs in a child, whose standard streams can be replaced.
TEST(ForkExec, TakesStreamsThatStandInOneAnothersPlace) {
    Channel input(SOCK_STREAM);
    Channel output;
    Channel errors;
    ASSERT_EQ(::write(input.Writer(), "input\n", 6), 6);
    ForkedChild child([&] {
        Call call({"/bin/sh", "-c", "read line; echo \"$line\"; echo error >&2"});
        call.workingDirectory = ::dup2(call.root.Get(), STDIN_FILENO);
        ::dup2(input.Reader(), STDERR_FILENO);
        ::dup2(errors.Writer(), STDOUT_FILENO);
        call.streams = {STDERR_FILENO, output.Writer(), STDOUT_FILENO};
        return call.Run() == 0 ? WaitForChild(call.process) : 99;
    });
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_EQ(output.ReadToEnd(), "input\n");
    EXPECT_EQ(errors.ReadToEnd(), "error\n");
}

TEST(ForkExec, InheritsStreamsAtTheirOwnNumbersThatAreMarkedCloseOnExec) {
    Channel output;
    ForkedChild child([&] {
        Call call({"/bin/sh", "-c", "echo output; echo error >&2"});
        ::dup3(call.null.Get(), STDIN_FILENO, O_CLOEXEC);
        ::dup3(output.Writer(), STDOUT_FILENO, O_CLOEXEC);
        ::dup3(output.Writer(), STDERR_FILENO, O_CLOEXEC);
        call.streams = {0, 1, 2};
        return call.Run() == 0 ? WaitForChild(call.process) : 99;
    });
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_EQ(output.ReadToEnd(), "output\nerror\n");
}

TEST(ForkExec, InheritsNoOtherDescriptor) {
    const posix::Descriptor inheritable(::fcntl(STDIN_FILENO, F_DUPFD, 20));
    ASSERT_TRUE(inheritable);
    // The third is the directory as ls reads it.
    EXPECT_EQ(OutputOf(Call({"/bin/ls", "/proc/self/fd"})), "0\n1\n2\n3\n");
}

TEST(ForkExec, StartsInTheWorkingDirectory) {
    EXPECT_EQ(OutputOf(Call({"/bin/pwd"})), "/\n");
    const TemporaryDirectory directory;
    Call call({"/bin/pwd", "-P"});
    const posix::Descriptor opened(::open(directory.Path().c_str(), O_RDONLY | O_CLOEXEC));
    call.workingDirectory = opened.Get();
    EXPECT_EQ(OutputOf(std::move(call)), directory.Path().string() + "\n");
}

TEST(ForkExec, ReportsFailuresAsNegatedErrorNumbers) {
    const TemporaryDirectory directory;
    EXPECT_EQ(Call({"/no/such/program"}).Run(), -ENOENT);
    EXPECT_EQ(Call({directory.Write("text", "exit 0\n")}).Run(), -EACCES);
    const std::string withoutInterpreter = directory.Write("program", "exit 0\n");
    std::filesystem::permissions(withoutInterpreter, std::filesystem::perms::owner_all);
    EXPECT_EQ(Call({withoutInterpreter}).Run(), -ENOEXEC);
}

TEST(ForkExec, RefusesDescriptorsThatAreNotOpen) {
    Call badStream({"/bin/true"});
    badStream.streams[1] = -1;
    EXPECT_EQ(badStream.Run(), -EBADF);
    badStream.streams[1] = 1000;
    EXPECT_EQ(badStream.Run(), -EBADF);
    Call badDirectory({"/bin/true"});
    badDirectory.workingDirectory = -1;
    EXPECT_EQ(badDirectory.Run(), -EBADF);
    badDirectory.workingDirectory = badDirectory.null.Get();
    EXPECT_EQ(badDirectory.Run(), -ENOTDIR);
}

TEST(ForkExec, LetsTheRealIdsTakeEffect) {
    Channel output;
    ForkedChild child([&] {
        if (::getuid() == 0) {
            (void)!::setegid(65534);
            (void)!::seteuid(65534);
        }
        Call call({"/usr/bin/id", "-u"});
        call.streams[1] = output.Writer();
        return call.Run() == 0 ? WaitForChild(call.process) : 99;
    });
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_EQ(output.ReadToEnd(), std::to_string(::getuid()) + "\n");
}

TEST(ForkExec, RefusesOtherIdsThanTheCallersRealOnes) {
    Call otherUser({"/bin/true"});
    ++otherUser.userId;
    EXPECT_EQ(otherUser.Run(), -EPERM);
    Call otherGroup({"/bin/true"});
    ++otherGroup.groupId;
    EXPECT_EQ(otherGroup.Run(), -EPERM);
}

TEST(ForkExec, StartsTheProgramWithDefaultSignals) {
    ForkedChild child([] {
        ::signal(SIGPIPE, SIG_IGN);
        sigset_t blocked;
        ::sigfillset(&blocked);
        ::sigprocmask(SIG_SETMASK, &blocked, nullptr);
        const std::string status = OutputOf(Call({"/bin/cat", "/proc/self/status"}));
        EXPECT_EQ(lofter::test::SignalsOf(status, "SigBlk"), 0U);
        EXPECT_EQ(lofter::test::SignalsOf(status, "SigIgn"), 0U);
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(child.Wait(), 0);
}

TEST(ForkExec, LeavesNoDescriptorBehind) {
    const std::set<int> before = OpenDescriptors();
    OutputOf(Call({"/bin/true"}));
    Call failing({"/no/such/program"});
    failing.streams = {0, 1, 2};
    EXPECT_EQ(failing.Run(), -ENOENT);
    failing.null.Reset();
    failing.root.Reset();
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST(ProcessorCount, IsTheNumberOfProcessorsOnline) {
    EXPECT_EQ(OutputOf(Call({"/usr/bin/getconf", "_NPROCESSORS_ONLN"})),
              std::to_string(HostKernel_ProcessorCount()) + "\n");
    EXPECT_GE(HostKernel_ProcessorCount(), 1U);
}

}  // namespace
