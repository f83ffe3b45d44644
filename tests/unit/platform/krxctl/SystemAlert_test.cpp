#include "krxctl/SystemAlert.h"

#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/ChildOutcome.h"
#include "support/LogCapture.h"
#include "support/OpenDescriptors.h"
#include "support/TemporaryDirectory.h"

namespace platform {
namespace {

using lofter::test::LogCapture;
using lofter::test::TemporaryDirectory;
using Alert = platform::SystemAlert;
using Texts = std::vector<std::string>;

std::size_t FilesIn(const std::filesystem::path& folder) {
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator()));
}

TEST(SystemAlert, StandsInAFileWhoseFolderIsMade) {
    const TemporaryDirectory directory;
    Alert(directory / "issue.d/50-lofter.issue").Raise("The barrier is missing.");
    EXPECT_EQ(directory.Read("issue.d/50-lofter.issue"), "The barrier is missing.\n");
    EXPECT_EQ(FilesIn(directory / "issue.d"), 1U);
    EXPECT_EQ(std::filesystem::status(directory / "issue.d/50-lofter.issue").permissions(),
              std::filesystem::perms(0644));
}

TEST(SystemAlert, HasEveryTextOfTheRunAndNoneOfTheRunBefore) {
    const TemporaryDirectory directory;
    directory.Write("alert", "of a run before");
    Alert alert(directory / "alert");
    EXPECT_EQ(directory.Read("alert"), "of a run before");
    alert.Raise("first");
    EXPECT_EQ(directory.Read("alert"), "first\n");
    alert.Raise("second\n");
    EXPECT_EQ(directory.Read("alert"), "first\nsecond\n");
    EXPECT_EQ(FilesIn(directory.Path()), 1U);
}

TEST(SystemAlert, MeansNothingToTheLoginPromptOrTheTerminal) {
    const TemporaryDirectory directory;
    Alert(directory / "alert").Raise("a\\l\x1b[1m");
    EXPECT_EQ(directory.Read("alert"), "a\\\\l\\\\x1b[1m\n");
}

TEST(SystemAlert, IsLoggedAsAnAlert) {
    const TemporaryDirectory directory;
    const LogCapture capture;
    Alert(directory / "alert").Raise("text");
    EXPECT_EQ(capture.Alerts(), Texts{"text"});
    EXPECT_EQ(directory.Read("alert"), "text\n");
}

TEST(SystemAlert, IsLoggedEvenWhenItCannotBeRecorded) {
    const TemporaryDirectory directory;
    const LogCapture capture;
    const std::set<int> before = lofter::test::OpenDescriptors();
    const std::string path = directory.Write("file", "x") + "/alert";
    try {
        Alert(path).Raise("text");
        ADD_FAILURE() << "recorded";
    } catch (const std::runtime_error& failure) {
        EXPECT_EQ(failure.what(), path + ": Not a directory");
    }
    EXPECT_EQ(capture.Alerts(), Texts{"text"});
    EXPECT_EQ(lofter::test::OpenDescriptors(), before);
}

TEST(SystemAlert, IsRecordedWithTheNextOneOnceThatIsPossible) {
    const TemporaryDirectory directory;
    const std::string blocked = directory.Write("folder", "in the way");
    Alert alert(blocked + "/alert");
    EXPECT_THROW(alert.Raise("first"), std::runtime_error);
    std::filesystem::remove(blocked);
    alert.Raise("second");
    EXPECT_EQ(directory.Read("folder/alert"), "first\nsecond\n");
}

TEST(SystemAlert, IsWrittenOutAgainWhenTheFileIsNotAsItWasLeft) {
    const TemporaryDirectory directory;
    Alert alert(directory / "alert");
    alert.Raise("first");
    for (const char* change : {"", "cut", "first\nnot ours"}) {
        directory.Write("alert", change);
        alert.Raise("next");
        EXPECT_TRUE(directory.Read("alert").starts_with("first\nnext\n")) << directory.Read("alert");
    }
    EXPECT_EQ(directory.Read("alert"), "first\nnext\nnext\nnext\n");
}

TEST(SystemAlert, CostsTheSameWhetherItIsTheFirstOrTheLast) {
    const TemporaryDirectory directory;
    const LogCapture capture;
    Alert alert(directory / "alert");
    // Written out anew each time, they would be 60 GB.
    constexpr std::size_t kTexts = 40'000;
    const std::string text(74, 'x');
    const auto start = std::chrono::steady_clock::now();
    for (std::size_t count = 0; count < kTexts; ++count) {
        alert.Raise(text);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    EXPECT_EQ(std::filesystem::file_size(directory / "alert"), kTexts * (text.size() + 1));
}

TEST(SystemAlert, HasTheTextsOfAllThreadsInTheOrderOfTheLog) {
    const TemporaryDirectory directory;
    const LogCapture capture;
    Alert alert(directory / "alert");
    std::vector<std::thread> threads;
    for (int number = 0; number < 8; ++number) {
        threads.emplace_back([&alert, number] {
            for (int round = 0; round < 5; ++round) {
                alert.Raise(std::to_string(number) + "." + std::to_string(round));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::string logged;
    for (const std::string& text : capture.Alerts()) {
        logged += text + '\n';
    }
    EXPECT_EQ(capture.Alerts().size(), 40U);
    EXPECT_EQ(directory.Read("alert"), logged);
}

TEST(SystemAlert, IsNobodyElsesToWrite) {
    const TemporaryDirectory directory;
    EXPECT_EQ(lofter::test::InForkedChild([&] {
                  ::umask(0);
                  Alert(directory / "issue.d/alert").Raise("text");
                  return std::string("raised");
              }),
              "raised");
    EXPECT_EQ(std::filesystem::status(directory / "issue.d").permissions(), std::filesystem::perms(0755));
    EXPECT_EQ(std::filesystem::status(directory / "issue.d/alert").permissions(), std::filesystem::perms(0644));
}

TEST(SystemAlert, LeavesNothingBehindWhenItCannotTakeItsPlace) {
    const TemporaryDirectory directory;
    std::filesystem::create_directories(directory / "alert/folder");
    const std::string path = directory / "alert";
    EXPECT_THROW(Alert(path).Raise("text"), std::runtime_error);
    EXPECT_EQ(FilesIn(directory.Path()), 1U);
}

}  // namespace
}  // namespace platform
