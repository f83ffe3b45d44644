#include "util/SyncToDisk.h"

#include <array>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "support/ChildOutcome.h"
#include "support/SyscallFilter.h"
#include "support/TemporaryDirectory.h"
#include "util/Descriptor.h"

namespace lofter {
namespace {

TEST(SyncToDisk, SucceedsForAFile) {
    const test::TemporaryDirectory folder;
    const Descriptor file(open(folder.Write("file", "content").c_str(), O_WRONLY));
    EXPECT_TRUE(SyncToDisk(file.Get()));
}

TEST(SyncToDisk, SucceedsForWhatHasNoDisk) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    const Descriptor readEnd(ends[0]);
    const Descriptor writeEnd(ends[1]);
    EXPECT_TRUE(SyncToDisk(writeEnd.Get()));
}

TEST(SyncToDisk, FailsForADescriptorThatIsNotOpen) {
    EXPECT_FALSE(SyncToDisk(-1));
    EXPECT_EQ(errno, EBADF);
}

TEST(SyncToDisk, FailsWhenTheDiskDoes) {
    const test::TemporaryDirectory folder;
    const Descriptor file(open(folder.Write("file", "content").c_str(), O_WRONLY));
    EXPECT_EQ(test::InForkedChild([&]() -> std::string {
                  test::FilterSyscalls({{.number = SYS_fsync, .error = EIO}});
                  return SyncToDisk(file.Get()) ? "synced" : std::strerror(errno);
              }),
              "Input/output error");
}

}  // namespace
}  // namespace lofter
