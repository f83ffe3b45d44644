#include "krxuser/spawn.h"

#include <cerrno>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include "support/Channel.h"
#include "support/ForkedChild.h"
#include "support/OpenDescriptors.h"
#include "support/SignalsOf.h"

namespace {

using lofter::test::Channel;
using lofter::test::ForkedChild;
using lofter::test::WaitForChild;

using Actions = std::unique_ptr<KrxuserCompatSpawnFileActions, decltype(&KrxuserCompat_SpawnFileActionsDestroy)>;

Actions RoomFor(int capacity) {
    KrxuserCompatSpawnFileActions* actions = nullptr;
    EXPECT_EQ(KrxuserCompat_SpawnFileActionsInit(&actions, capacity), 0);
    return Actions(actions, &KrxuserCompat_SpawnFileActionsDestroy);
}

// Starts the program with an empty environment and its output in the channel.
KrxuserStatus Spawn(pid_t* process, std::vector<std::string> words, const Channel* output = nullptr) {
    const Actions actions = RoomFor(1);
    if (output != nullptr) {
        EXPECT_EQ(KrxuserCompat_SpawnFileActionsAddDup2(actions.get(), output->Writer(), STDOUT_FILENO), 0);
    }
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    char* const environment[] = {nullptr};
    return KrxuserCompat_Spawn(process, words[0].c_str(), actions.get(), nullptr, arguments.data(), environment);
}

std::string OutputOf(const std::vector<std::string>& words) {
    Channel output;
    pid_t process = -1;
    EXPECT_EQ(Spawn(&process, words, &output), 0);
    const std::string text = output.ReadToEnd();
    EXPECT_EQ(WaitForChild(process), 0);
    return text;
}

TEST(KrxuserSpawn, RunsTheProgramWithItsArguments) {
    EXPECT_EQ(OutputOf({"/bin/echo", "one", "two words", ""}), "one two words \n");
}

TEST(KrxuserSpawn, GivesTheProgramExactlyTheEnvironment) {
    EXPECT_EQ(OutputOf({"/usr/bin/env"}), "");
}

TEST(KrxuserSpawn, LeavesTheExitStatusToTheCaller) {
    pid_t process = -1;
    ASSERT_EQ(Spawn(&process, {"/bin/sh", "-c", "exit 3"}), 0);
    EXPECT_EQ(WaitForChild(process), 3);
    ASSERT_EQ(Spawn(&process, {"/bin/sh", "-c", "kill -9 $$"}), 0);
    EXPECT_EQ(WaitForChild(process), -9);
}

TEST(KrxuserSpawn, ReportsAProgramThatCannotBeStarted) {
    pid_t process = -1;
    EXPECT_EQ(Spawn(&process, {"/no/such/program"}), ENOENT);
    EXPECT_EQ(Spawn(&process, {"/etc/passwd"}), EACCES);
}

TEST(KrxuserSpawn, InheritsADescriptorThatIsDuplicatedOntoItself) {
    Channel channel;
    const Actions actions = RoomFor(1);
    ASSERT_EQ(KrxuserCompat_SpawnFileActionsAddDup2(actions.get(), channel.Writer(), channel.Writer()), 0);
    std::string command = "echo inherited >&" + std::to_string(channel.Writer());
    char* const arguments[] = {const_cast<char*>("sh"), const_cast<char*>("-c"), command.data(), nullptr};
    char* const environment[] = {nullptr};
    pid_t process = -1;
    ASSERT_EQ(KrxuserCompat_Spawn(&process, "/bin/sh", actions.get(), nullptr, arguments, environment), 0);
    EXPECT_EQ(WaitForChild(process), 0);
    EXPECT_EQ(channel.ReadToEnd(), "inherited\n");
}

TEST(KrxuserSpawn, NeedsNoFileActions) {
    char* const arguments[] = {const_cast<char*>("true"), nullptr};
    pid_t process = -1;
    ASSERT_EQ(KrxuserCompat_Spawn(&process, "/bin/true", nullptr, nullptr, arguments, arguments + 1), 0);
    EXPECT_EQ(WaitForChild(process), 0);
}

TEST(KrxuserSpawn, StartsTheProgramWithDefaultSignals) {
    ForkedChild child([] {
        ::signal(SIGPIPE, SIG_IGN);
        ::signal(SIGHUP, SIG_IGN);
        sigset_t blocked;
        ::sigfillset(&blocked);
        ::sigprocmask(SIG_SETMASK, &blocked, nullptr);
        const std::string status = OutputOf({"/bin/cat", "/proc/self/status"});
        EXPECT_EQ(lofter::test::SignalsOf(status, "SigBlk"), 0U);
        EXPECT_EQ(lofter::test::SignalsOf(status, "SigIgn"), 0U);
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(child.Wait(), 0);
}

TEST(KrxuserSpawn, RefusesMoreActionsThanThereIsRoomFor) {
    const Actions actions = RoomFor(2);
    EXPECT_EQ(KrxuserCompat_SpawnFileActionsAddDup2(actions.get(), 0, 0), 0);
    EXPECT_EQ(KrxuserCompat_SpawnFileActionsAddDup2(actions.get(), -1, 1), EBADF);
    EXPECT_EQ(KrxuserCompat_SpawnFileActionsAddDup2(actions.get(), 1, -1), EBADF);
    EXPECT_EQ(KrxuserCompat_SpawnFileActionsAddDup2(actions.get(), 1, 1), 0);
    EXPECT_EQ(KrxuserCompat_SpawnFileActionsAddDup2(actions.get(), 2, 2), ENOSPC);
}

TEST(KrxuserSpawn, RefusesANegativeCapacity) {
    KrxuserCompatSpawnFileActions* actions = nullptr;
    EXPECT_EQ(KrxuserCompat_SpawnFileActionsInit(&actions, -1), EINVAL);
    EXPECT_EQ(KrxuserCompat_SpawnFileActionsInit(nullptr, 1), EINVAL);
}

TEST(KrxuserSpawn, LeavesNoDescriptorBehind) {
    const std::set<int> before = lofter::test::OpenDescriptors();
    OutputOf({"/bin/true"});
    pid_t process = -1;
    EXPECT_NE(Spawn(&process, {"/no/such/program"}), 0);
    EXPECT_EQ(lofter::test::OpenDescriptors(), before);
}

TEST(KrxuserStatus, IsTheSystemsText) {
    char buffer[512];
    EXPECT_EQ(KrxuserStatus_CodeToString(ENOENT, buffer, sizeof buffer, 0), buffer);
    EXPECT_STREQ(buffer, "No such file or directory");
}

TEST(KrxuserStatus, IsCutToTheBuffer) {
    char buffer[8] = "";
    EXPECT_STREQ(KrxuserStatus_CodeToString(ENOENT, buffer, sizeof buffer, 0), "No such");
}

}  // namespace
