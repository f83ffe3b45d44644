#include "executor/AcceptRelief.h"

#include <set>
#include <vector>

#include <gtest/gtest.h>

#include "support/OpenDescriptors.h"

namespace lofter {
namespace {

using Milliseconds = std::vector<int>;
using test::OpenDescriptors;

class Relief : public testing::Test {
  protected:
    void Fail(int times) {
        for (int count = 0; count < times; ++count) {
            relief.AfterFailure();
        }
    }

    Milliseconds pauses;
    AcceptRelief relief{[this](int milliseconds) {
        pauses.push_back(milliseconds);
    }};
};

TEST_F(Relief, IsALongerPauseAfterEachFailureUpToASecond) {
    Fail(9);
    EXPECT_EQ(pauses, Milliseconds({10, 20, 40, 80, 160, 320, 640, 1000, 1000}));
}

TEST_F(Relief, BeginsWithTheShortestPauseAgainWhenAConnectionWasAccepted) {
    Fail(3);
    relief.SetAside();
    Fail(2);
    EXPECT_EQ(pauses, Milliseconds({10, 20, 40, 10, 20}));
}

TEST_F(Relief, GivesUpItsDescriptorAtTheFirstFailureAndHasOneAgainAfterAConnection) {
    const std::set<int> before = OpenDescriptors();
    relief.SetAside();
    relief.SetAside();
    EXPECT_EQ(OpenDescriptors().size(), before.size() + 1);
    Fail(2);
    EXPECT_EQ(OpenDescriptors(), before);
    relief.SetAside();
    EXPECT_EQ(OpenDescriptors().size(), before.size() + 1);
}

}  // namespace
}  // namespace lofter
