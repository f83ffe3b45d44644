#include "ExitWatch.h"

#include <cstdlib>

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/ForkedChild.h"

namespace lofter {
namespace {

// The exit status of a child that exits by the call, and what the watch in it has said into a pipe by then.
struct Outcome {
    int status;
    std::string said;
    bool operator==(const Outcome&) const = default;
};

template <typename Work>
Outcome OutcomeOf(Work work) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const int status = test::ForkedChild([&] {
                           work([&] { static_cast<void>(write(ends[1], "last act", 8) == 8); });
                           return 9;
                       }).Wait();
    close(ends[1]);
    char text[32] = "";
    static_cast<void>(read(ends[0], text, sizeof text - 1) >= 0);
    close(ends[0]);
    return {status, text};
}

void PrintTo(const Outcome& outcome, std::ostream* stream) {
    *stream << outcome.status << " '" << outcome.said << "'";
}

TEST(ExitWatch, MakesAnExitThatNobodyAskedForAFailure) {
    EXPECT_EQ(OutcomeOf([](auto lastAct) {
                  const ExitWatch watch(lastAct);
                  std::exit(0);
              }),
              (Outcome{1, "last act"}));
    EXPECT_EQ(OutcomeOf([](auto lastAct) {
                  const ExitWatch watch(lastAct);
                  std::quick_exit(0);
              }),
              (Outcome{1, "last act"}));
}

TEST(ExitWatch, LetsTheProcessExitOnceItIsOver) {
    EXPECT_EQ(OutcomeOf([](auto lastAct) {
                  { const ExitWatch watch(lastAct); }
                  std::exit(0);
              }),
              (Outcome{0, ""}));
}

TEST(ExitWatch, LetsOtherProcessesExit) {
    EXPECT_EQ(OutcomeOf([](auto lastAct) {
                  const ExitWatch watch(lastAct);
                  _exit(test::ForkedChild([]() -> int { std::exit(7); }).Wait());
              }),
              (Outcome{7, ""}));
}

}  // namespace
}  // namespace lofter
