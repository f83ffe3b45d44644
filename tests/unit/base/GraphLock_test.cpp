#include "base/GraphLock.h"

#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "base/Exception.h"
#include "support/FailureOf.h"
#include "support/Faults.h"

namespace lofter {
namespace {

bool HeldByAnotherThread() {
    return std::async(std::launch::async, &GraphLock::HeldByCaller).get();
}

TEST(GraphLock, IsHeldByTheThreadThatTookIt) {
    EXPECT_FALSE(GraphLock::HeldByCaller());
    GraphLock lock;
    EXPECT_TRUE(GraphLock::HeldByCaller());
    EXPECT_FALSE(HeldByAnotherThread());
}

TEST(GraphLock, MayBeTakenAgainByItsOwner) {
    GraphLock outer;
    {
        GraphLock inner;
        EXPECT_TRUE(GraphLock::HeldByCaller());
    }
    EXPECT_TRUE(GraphLock::HeldByCaller());
}

TEST(GraphLock, CanBeReleasedEarlyAndTakenAgain) {
    GraphLock lock;
    lock.Release();
    EXPECT_FALSE(GraphLock::HeldByCaller());
    std::thread([] { GraphLock other; }).join();
    lock.Acquire();
    EXPECT_TRUE(GraphLock::HeldByCaller());
}

TEST(GraphLock, IsNotReleasedTwiceByAGuardThatGaveItUp) {
    GraphLock outer;
    {
        GraphLock inner;
        inner.Release();
    }
    EXPECT_TRUE(GraphLock::HeldByCaller());
}

TEST(GraphCondition, LetsOthersInWhileItWaitsAndHoldsTheLockAfterwards) {
    GraphCondition condition("unused");
    bool isSet = false;
    GraphLock lock;
    std::thread other([&] {
        GraphLock otherLock;
        isSet = true;
        condition.Broadcast();
    });
    while (!isSet) {
        condition.Wait();
    }
    EXPECT_TRUE(GraphLock::HeldByCaller());
    lock.Release();
    EXPECT_FALSE(GraphLock::HeldByCaller());
    other.join();
}

TEST(GraphCondition, SaysWhatItWasForWhenTheSystemRefusesIt) {
    const test::FailingCall failing(test::Call::PthreadCondInit, 0);
    EXPECT_EQ(test::FailureOf<Exception>(
                  [&] { GraphCondition condition("Condition variable for X could not be initialized"); }),
              "Condition variable for X could not be initialized");
}

}  // namespace
}  // namespace lofter
