#include "posix/File.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "posix/Directory.h"
#include "support/ChildOutcome.h"
#include "support/SyscallFilter.h"
#include "support/TemporaryDirectory.h"

namespace lofter {
namespace {

using posix::Descriptor;

TEST(OpenRegularFile, DoesNotWaitForTheOtherEndOfAPipe) {
    const test::TemporaryDirectory folder;
    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
    for (const int access : {O_RDONLY, O_WRONLY, O_RDWR}) {
        EXPECT_FALSE(posix::OpenRegularFile(folder / "pipe", access));
        EXPECT_EQ(errno, ENXIO) << access;
    }
}

TEST(OpenRegularFile, RefusesADirectoryAndSaysWhatIsMissing) {
    const test::TemporaryDirectory folder;
    for (const int access : {O_RDONLY, O_WRONLY, O_RDWR}) {
        EXPECT_FALSE(posix::OpenRegularFile(folder.Path(), access));
        EXPECT_EQ(errno, EISDIR) << access;
    }
    EXPECT_FALSE(posix::OpenRegularFile(folder / "missing", O_RDONLY));
    EXPECT_EQ(errno, ENOENT);
}

TEST(OpenRegularFile, RefusesADevice) {
    EXPECT_FALSE(posix::OpenRegularFile("/dev/null", O_RDWR));
    EXPECT_EQ(errno, ENXIO);
}

TEST(OpenRegularFile, LeavesNoOtherFlagsThanWanted) {
    const test::TemporaryDirectory folder;
    const Descriptor file = posix::OpenRegularFile(folder / "file", O_WRONLY | O_CREAT | O_APPEND, 0600);
    EXPECT_EQ(fcntl(file.Get(), F_GETFL) & (O_ACCMODE | O_APPEND | O_NONBLOCK), O_WRONLY | O_APPEND);
    EXPECT_EQ(fcntl(file.Get(), F_GETFD), FD_CLOEXEC);
}

TEST(OpenAtOnce, TakesAPipeThatHasTwoEndsAndWaitsForNone) {
    const test::TemporaryDirectory folder;
    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
    EXPECT_FALSE(posix::OpenAtOnce(folder / "pipe", O_WRONLY));
    EXPECT_EQ(errno, ENXIO);
    const Descriptor reader = posix::OpenAtOnce(folder / "pipe", O_RDONLY);
    const Descriptor writer = posix::OpenAtOnce(folder / "pipe", O_WRONLY);
    EXPECT_EQ(fcntl(writer.Get(), F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_WRONLY);
}

TEST(OpenFileOrDevice, TakesBothAndNothingElse) {
    const test::TemporaryDirectory folder;
    EXPECT_TRUE(posix::OpenFileOrDevice("/dev/null", O_RDWR));
    EXPECT_TRUE(posix::OpenFileOrDevice(folder.Write("file", ""), O_RDONLY));
    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
    EXPECT_FALSE(posix::OpenFileOrDevice(folder / "pipe", O_RDWR));
    EXPECT_EQ(errno, ENXIO);
}

TEST(File, IsReadUpToALength) {
    const test::TemporaryDirectory folder;
    folder.Write("file", std::string(200'000, 'x'));
    for (const std::size_t length : {std::size_t{0}, std::size_t{64}, std::size_t{150'000}, std::size_t{200'000}}) {
        EXPECT_EQ(posix::ReadWhole(posix::OpenRegularFile(folder / "file", O_RDONLY), length),
                  std::string(length, 'x'));
    }
    EXPECT_EQ(posix::ReadWhole(posix::OpenRegularFile(folder / "file", O_RDONLY), 300'000), std::string(200'000, 'x'));
}

TEST(File, IsReadAsItWasWritten) {
    const test::TemporaryDirectory folder;
    const std::string content = std::string(200'000, 'x') + '\0' + "end";
    ASSERT_TRUE(posix::WriteWhole(posix::OpenRegularFile(folder / "file", O_WRONLY | O_CREAT, 0600), content));
    EXPECT_EQ(posix::ReadWhole(posix::OpenRegularFile(folder / "file", O_RDONLY)), content);
    EXPECT_EQ(posix::ReadWhole(Descriptor()), std::nullopt);
    EXPECT_EQ(errno, EBADF);
}

TEST(ReplaceFile, PutsContentAndModeInPlaceAndLeavesNothingElse) {
    const test::TemporaryDirectory folder;
    folder.Write("file", "old and longer");
    ASSERT_TRUE(posix::ReplaceFile(folder / "file", "new", 0640));
    EXPECT_EQ(folder.Read("file"), "new");
    EXPECT_EQ(std::filesystem::status(folder / "file").permissions(), std::filesystem::perms{0640});
    EXPECT_EQ(posix::FileNames(folder.Path()), std::vector<std::string>{"file"});
}

TEST(ReplaceFile, LeavesNothingBehindWhenItFails) {
    const test::TemporaryDirectory folder;
    folder.Write("folder/inside", "");
    EXPECT_FALSE(posix::ReplaceFile(folder / "folder", "new", 0640));
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(posix::FileNames(folder.Path()), std::vector<std::string>{"folder"});
    EXPECT_FALSE(posix::ReplaceFile(folder / "missing/file", "new", 0640));
    EXPECT_EQ(errno, ENOENT);
}

TEST(SyncToDisk, SucceedsForAFile) {
    const test::TemporaryDirectory folder;
    const posix::Descriptor file(open(folder.Write("file", "content").c_str(), O_WRONLY));
    EXPECT_TRUE(posix::SyncToDisk(file));
}

TEST(SyncToDisk, SucceedsForWhatHasNoDisk) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    const posix::Descriptor readEnd(ends[0]);
    const posix::Descriptor writeEnd(ends[1]);
    EXPECT_TRUE(posix::SyncToDisk(writeEnd));
}

TEST(SyncToDisk, FailsForADescriptorThatIsNotOpen) {
    EXPECT_FALSE(posix::SyncToDisk(posix::Descriptor()));
    EXPECT_EQ(errno, EBADF);
}

TEST(SyncToDisk, FailsWhenTheDiskDoes) {
    const test::TemporaryDirectory folder;
    const posix::Descriptor file(open(folder.Write("file", "content").c_str(), O_WRONLY));
    EXPECT_EQ(test::InForkedChild([&]() -> std::string {
                  test::FilterSyscalls({{.number = SYS_fsync, .error = EIO}});
                  return posix::SyncToDisk(file) ? "synced" : std::strerror(errno);
              }),
              "Input/output error");
}

}  // namespace
}  // namespace lofter
