#include "poll/poll.h"

#include <array>
#include <cerrno>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "posix/Descriptor.h"

namespace lofter {
namespace {

constexpr int kReadable = kPollPeriodic | kPollRead | kPollSocket;

struct Pipe {
    posix::Descriptor readEnd;
    posix::Descriptor writeEnd;

    Pipe() {
        std::array<int, 2> ends{};
        EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
        readEnd.Reset(ends[0]);
        writeEnd.Reset(ends[1]);
    }
    void Put() const { EXPECT_EQ(::write(writeEnd.Get(), "x", 1), 1); }
    void Take() const {
        char taken = 0;
        EXPECT_EQ(::read(readEnd.Get(), &taken, 1), 1);
    }
};

// A callback's client data: takes one byte per call, and ends the loop with the last call that is wanted.
struct Reader {
    Pipe pipe;
    int flags = kReadable;
    int calls = 0;
    int wanted = 1;
    bool exit = false;
    std::mutex* lockToTry = nullptr;
    bool lockWasHeld = false;
    std::thread::id thread;

    static void OnReadable(void* clientData) {
        auto& self = *static_cast<Reader*>(clientData);
        self.pipe.Take();
        self.thread = std::this_thread::get_id();
        if (self.lockToTry != nullptr) {
            std::thread([&self] { self.lockWasHeld = !self.lockToTry->try_lock(); }).join();
        }
        if (++self.calls == self.wanted) {
            self.exit = true;
            Poll_NotifyChange(kPollMainClassSet);
            Poll_CallbackRemove(kPollMainClassSet, self.flags, OnReadable, clientData, kPollDevice);
        }
    }
    int Register(std::mutex* lock = nullptr) {
        return Poll_Callback(kPollMainClassSet, flags, OnReadable, this, kPollDevice, pipe.readEnd.Get(), lock);
    }
    bool Remove() { return Poll_CallbackRemove(kPollMainClassSet, flags, OnReadable, this, kPollDevice); }
};

class Poll : public testing::Test {
  protected:
    void SetUp() override { Poll_InitDefault(); }
};

TEST_F(Poll, CallsBackAsLongAsTheDescriptorIsReadable) {
    Reader reader;
    reader.wanted = 3;
    ASSERT_EQ(reader.Register(), 0);
    for (int count = 0; count < 3; ++count) {
        reader.pipe.Put();
    }
    Poll_Loop(true, &reader.exit, kPollMainClass);
    EXPECT_EQ(reader.calls, 3);
}

TEST_F(Poll, RunsCallbacksOnTheThreadThatRunsTheLoop) {
    Reader reader;
    ASSERT_EQ(reader.Register(), 0);
    reader.pipe.Put();
    std::thread loop([&reader] { Poll_Loop(true, &reader.exit, kPollMainClass); });
    const std::thread::id expected = loop.get_id();
    loop.join();
    EXPECT_EQ(reader.thread, expected);
}

TEST_F(Poll, ServesEventsThatArriveWhileTheLoopWaits) {
    Reader reader;
    reader.wanted = 2;
    ASSERT_EQ(reader.Register(), 0);
    std::thread loop([&reader] { Poll_Loop(true, &reader.exit, kPollMainClass); });
    reader.pipe.Put();
    reader.pipe.Put();
    loop.join();
    EXPECT_EQ(reader.calls, 2);
}

TEST_F(Poll, ForgetsACallbackThatRemovedItself) {
    Reader reader;
    ASSERT_EQ(reader.Register(), 0);
    reader.pipe.Put();
    Poll_Loop(true, &reader.exit, kPollMainClass);
    EXPECT_FALSE(reader.Remove());
}

TEST_F(Poll, ServesOneRoundWhenNotAskedToLoop) {
    Reader reader;
    reader.wanted = 100;
    ASSERT_EQ(reader.Register(), 0);
    reader.pipe.Put();
    Poll_Loop(false, nullptr, kPollMainClass);
    EXPECT_EQ(reader.calls, 1);
    EXPECT_TRUE(reader.Remove());
}

TEST_F(Poll, FiresOnceWithoutThePeriodicFlag) {
    Reader reader;
    reader.flags = kPollRead;
    reader.wanted = 100;
    ASSERT_EQ(reader.Register(), 0);
    reader.pipe.Put();
    Poll_Loop(false, nullptr, kPollMainClass);
    EXPECT_EQ(reader.calls, 1);
    EXPECT_FALSE(reader.Remove());
}

TEST_F(Poll, HoldsTheCallbacksLockWhileItRuns) {
    std::mutex lock;
    Reader reader;
    reader.lockToTry = &lock;
    ASSERT_EQ(reader.Register(&lock), 0);
    reader.pipe.Put();
    Poll_Loop(true, &reader.exit, kPollMainClass);
    EXPECT_TRUE(reader.lockWasHeld);
    EXPECT_TRUE(lock.try_lock());
    lock.unlock();
}

TEST_F(Poll, LooksAtTheExitFlagWhenNotified) {
    bool exit = false;
    Reader reader;
    reader.wanted = 100;
    ASSERT_EQ(reader.Register(), 0);
    Poll_NotifyChange(kPollMainClassSet);
    Poll_Loop(false, &exit, kPollMainClass);
    EXPECT_EQ(reader.calls, 0);
    EXPECT_TRUE(reader.Remove());
}

TEST_F(Poll, DoesNotRunWhenTheExitFlagIsSetAlready) {
    Reader reader;
    ASSERT_EQ(reader.Register(), 0);
    reader.pipe.Put();
    reader.exit = true;
    Poll_Loop(true, &reader.exit, kPollMainClass);
    EXPECT_EQ(reader.calls, 0);
    EXPECT_TRUE(reader.Remove());
}

TEST_F(Poll, RunsOnlyTheCallbacksOfItsClass) {
    constexpr int otherClass = 1;
    Reader main;
    Reader other;
    ASSERT_EQ(main.Register(), 0);
    ASSERT_EQ(Poll_Callback(1 << otherClass, kReadable, Reader::OnReadable, &other, kPollDevice,
                            other.pipe.readEnd.Get(), nullptr),
              0);
    main.pipe.Put();
    other.pipe.Put();
    Poll_Loop(false, nullptr, otherClass);
    EXPECT_EQ(other.calls, 1);
    EXPECT_EQ(main.calls, 0);
    EXPECT_TRUE(main.Remove());
    EXPECT_TRUE(Poll_CallbackRemove(1 << otherClass, kReadable, Reader::OnReadable, &other, kPollDevice));
}

TEST_F(Poll, RefusesWhatItDoesNotKnow) {
    Reader reader;
    const int device = reader.pipe.readEnd.Get();
    const auto attempt = [&](int classSet, int flags, int type, int descriptor) {
        return Poll_Callback(classSet, flags, Reader::OnReadable, &reader, type, descriptor, nullptr);
    };
    EXPECT_EQ(attempt(0, kReadable, kPollDevice, device), EINVAL);
    EXPECT_EQ(attempt(1 << kPollClassCount, kReadable, kPollDevice, device), EINVAL);
    EXPECT_EQ(attempt(kPollMainClassSet, kPollPeriodic, kPollDevice, device), EINVAL);
    EXPECT_EQ(attempt(kPollMainClassSet, kReadable | 0x100, kPollDevice, device), EINVAL);
    EXPECT_EQ(attempt(kPollMainClassSet, kReadable, 1, device), EINVAL);
    EXPECT_NE(attempt(kPollMainClassSet, kReadable, kPollDevice, 1000000), 0);
    EXPECT_FALSE(reader.Remove());
}

TEST_F(Poll, RefusesTheSameCallbackTwice) {
    Reader reader;
    ASSERT_EQ(reader.Register(), 0);
    EXPECT_EQ(reader.Register(), EEXIST);
    EXPECT_TRUE(reader.Remove());
}

TEST_F(Poll, StartsAfreshInAForkedChild) {
    Reader inherited;
    ASSERT_EQ(inherited.Register(), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        Poll_InitDefault();
        Reader own;
        own.pipe.Put();
        const bool registered = !inherited.Remove() && own.Register() == 0;
        Poll_Loop(true, &own.exit, kPollMainClass);
        ::_exit(registered && own.calls == 1 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(inherited.Remove());
}

}  // namespace
}  // namespace lofter
