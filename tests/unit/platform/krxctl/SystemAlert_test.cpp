#include "krxctl/SystemAlert.h"

#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "support/OpenDescriptors.h"
#include "support/TemporaryDirectory.h"

namespace platform {
namespace {

using lofter::test::LogCapture;
using lofter::test::TemporaryDirectory;
using Texts = std::vector<std::string>;

std::size_t FilesIn(const std::filesystem::path& folder) {
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator()));
}

TEST(SystemAlert, StandsInAFileWhoseFolderIsMade) {
    const TemporaryDirectory directory;
    RecordAlert(directory / "issue.d/50-lofter.issue", "The barrier is missing.");
    EXPECT_EQ(directory.Read("issue.d/50-lofter.issue"), "The barrier is missing.\n");
    EXPECT_EQ(FilesIn(directory / "issue.d"), 1U);
    EXPECT_EQ(std::filesystem::status(directory / "issue.d/50-lofter.issue").permissions(),
              std::filesystem::perms(0644));
}

TEST(SystemAlert, ReplacesTheOneBefore) {
    const TemporaryDirectory directory;
    RecordAlert(directory / "alert", "a long first text");
    RecordAlert(directory / "alert", "second\n");
    EXPECT_EQ(directory.Read("alert"), "second\n");
    EXPECT_EQ(FilesIn(directory.Path()), 1U);
}

TEST(SystemAlert, MeansNothingToTheLoginPromptOrTheTerminal) {
    const TemporaryDirectory directory;
    RecordAlert(directory / "alert", "a\\l\x1b[1m");
    EXPECT_EQ(directory.Read("alert"), "a\\\\l?[1m\n");
}

TEST(SystemAlert, IsLoggedAsAnAlert) {
    const TemporaryDirectory directory;
    const LogCapture capture;
    RaiseAlert(directory / "alert", "text");
    EXPECT_EQ(capture.Alerts(), Texts{"text"});
    EXPECT_EQ(directory.Read("alert"), "text\n");
}

TEST(SystemAlert, IsLoggedEvenWhenItCannotBeRecorded) {
    const TemporaryDirectory directory;
    const LogCapture capture;
    const std::set<int> before = lofter::test::OpenDescriptors();
    const std::string path = directory.Write("file", "x") + "/alert";
    try {
        RaiseAlert(path, "text");
        ADD_FAILURE() << "recorded";
    } catch (const std::runtime_error& failure) {
        EXPECT_EQ(failure.what(), path + ": Not a directory");
    }
    EXPECT_EQ(capture.Alerts(), Texts{"text"});
    EXPECT_EQ(lofter::test::OpenDescriptors(), before);
}

TEST(SystemAlert, LeavesNothingBehindWhenItCannotTakeItsPlace) {
    const TemporaryDirectory directory;
    std::filesystem::create_directories(directory / "alert/folder");
    const std::string path = directory / "alert";
    EXPECT_THROW(RecordAlert(path, "text"), std::runtime_error);
    EXPECT_EQ(FilesIn(directory.Path()), 1U);
}

}  // namespace
}  // namespace platform
