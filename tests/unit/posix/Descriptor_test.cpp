#include "posix/Descriptor.h"

#include <cerrno>

#include <fcntl.h>
#include <gtest/gtest.h>

namespace lofter {
namespace {

bool IsOpen(int number) {
    return ::fcntl(number, F_GETFD) != -1;
}

posix::Descriptor OpenNull() {
    return posix::Descriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC));
}

TEST(Descriptor, OwnsNothingAtFirst) {
    const posix::Descriptor nothing;
    EXPECT_FALSE(nothing);
    EXPECT_EQ(nothing.Get(), -1);
}

TEST(Descriptor, ClosesWhatItOwnsWhenItGoes) {
    int number = -1;
    {
        const posix::Descriptor owner = OpenNull();
        number = owner.Get();
        ASSERT_TRUE(IsOpen(number));
    }
    EXPECT_FALSE(IsOpen(number));
}

TEST(Descriptor, MovesItsOwnershipAndClosesWhatTheTargetOwned) {
    posix::Descriptor source = OpenNull();
    posix::Descriptor target = OpenNull();
    const int kept = source.Get();
    const int dropped = target.Get();
    target = std::move(source);
    EXPECT_EQ(target.Get(), kept);
    EXPECT_TRUE(IsOpen(kept));
    EXPECT_FALSE(IsOpen(dropped));
}

TEST(Descriptor, LeavesReleasedDescriptorsOpen) {
    int number = -1;
    {
        posix::Descriptor owner = OpenNull();
        number = owner.Release();
        EXPECT_FALSE(owner);
    }
    EXPECT_TRUE(IsOpen(number));
    const posix::Descriptor cleanUp(number);
}

TEST(Descriptor, KeepsTheReasonOfAFailureWhileItCloses) {
    posix::Descriptor owner = OpenNull();
    errno = ECONNREFUSED;
    owner.Reset();
    EXPECT_EQ(errno, ECONNREFUSED);
}

}  // namespace
}  // namespace lofter
