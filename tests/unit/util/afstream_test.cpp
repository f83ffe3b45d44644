#include "util/afstream.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <stdexcept>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include "support/ChildOutcome.h"
#include "support/FailureOf.h"
#include "support/OpenDescriptors.h"
#include "support/SyscallFilter.h"
#include "support/TemporaryDirectory.h"

namespace lofter {
namespace {

using test::FailureOf;

namespace fs = std::filesystem;

mode_t ModeOf(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

class AtomicFileStream : public testing::Test {
  protected:
    std::string Read() const { return folder.Read("log"); }

    // Names in the folder but the destination's.
    std::vector<std::string> Others() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(folder.Path())) {
            if (entry.path().filename() != "log") {
                names.push_back(entry.path().filename());
            }
        }
        return names;
    }

    test::TemporaryDirectory folder;
    const std::string path = folder / "log";
};

TEST_F(AtomicFileStream, CreatesAMissingDestinationForItsOwnerOnly) {
    afstream stream;
    stream.open(path.c_str(), std::ios_base::out);
    stream << "new " << 1;
    EXPECT_FALSE(fs::exists(path));
    stream.commit();
    EXPECT_EQ(Read(), "new 1");
    EXPECT_EQ(ModeOf(path), 0600U);
    EXPECT_TRUE(Others().empty());
}

TEST_F(AtomicFileStream, GivesTheResultThePermissionsOfTheOldFile) {
    for (const mode_t mode : {0644U, 0400U, 0711U}) {
        folder.Write("log", "old");
        ASSERT_EQ(::chmod(path.c_str(), mode), 0);
        afstream stream;
        stream.open(path.c_str(), std::ios_base::out);
        stream << "new";
        stream.commit();
        EXPECT_EQ(Read(), "new");
        EXPECT_EQ(ModeOf(path), mode);
        fs::remove(path);
    }
}

TEST_F(AtomicFileStream, NeverKeepsTheRightToBeSomebodyElse) {
    for (const mode_t mode : {04755U, 02711U, 07777U}) {
        folder.Write("log", "old");
        ASSERT_EQ(::chmod(path.c_str(), mode), 0);
        afstream stream;
        stream.open(path.c_str(), std::ios_base::out);
        stream.commit();
        EXPECT_EQ(ModeOf(path), mode & 0777U);
    }
}

TEST_F(AtomicFileStream, TakesNoPermissionsFromADeviceThatALinkLedTo) {
    fs::create_symlink("/dev/null", path);
    afstream stream;
    stream.open(path.c_str(), std::ios_base::out);
    stream << "new";
    stream.commit();
    EXPECT_EQ(ModeOf(path), 0600U);
    EXPECT_EQ(Read(), "new");
}

// Whoever may write into the folder can put a link in the temporary file's place at any moment.
TEST_F(AtomicFileStream, NeverTouchesWhatALinkInTheTemporaryFilesPlaceLeadsTo) {
    folder.Write("log", "old");
    folder.Write("victim", "untouched");
    ASSERT_EQ(::chmod(path.c_str(), 0777), 0);
    ASSERT_EQ(::chmod((folder / "victim").c_str(), 0600), 0);
    afstream stream;
    stream.open(path.c_str(), std::ios_base::out);
    stream << "new";
    for (const std::string& name : Others()) {
        if (name != "victim") {
            fs::remove(folder / name);
            fs::create_symlink("victim", folder / name);
        }
    }
    stream.commit();
    EXPECT_EQ(folder.Read("victim"), "untouched");
    EXPECT_EQ(ModeOf(folder / "victim"), 0600U);
}

TEST_F(AtomicFileStream, WritesIntoAFileOfSixRandomCharactersBesideTheDestination) {
    afstream stream;
    stream.open(path.c_str(), std::ios_base::out);
    ASSERT_EQ(Others().size(), 1U);
    const std::string name = Others().front();
    EXPECT_TRUE(name.starts_with("log."));
    EXPECT_EQ(name.size(), std::strlen("log.XXXXXX"));
    EXPECT_EQ(ModeOf(folder / name), 0600U);
}

TEST_F(AtomicFileStream, LeavesEverythingAsItWasWithoutACommit) {
    folder.Write("log", "old");
    {
        afstream stream;
        stream.open(path.c_str(), std::ios_base::out);
        stream << "new" << std::flush;
        EXPECT_EQ(Read(), "old");
    }
    EXPECT_EQ(Read(), "old");
    EXPECT_TRUE(Others().empty());
}

TEST_F(AtomicFileStream, RefusesToCommitWhatWasNeverOpened) {
    afstream stream;
    EXPECT_EQ(FailureOf<std::runtime_error>([&] { stream.commit(); }), "commit invoked on an unknown destination");
    EXPECT_NE(FailureOf<std::runtime_error>([&] { stream.open((folder / "missing/log").c_str(), std::ios_base::out); }),
              test::kNoFailure);
    EXPECT_EQ(FailureOf<std::runtime_error>([&] { stream.commit(); }), "commit invoked on an unknown destination");
}

TEST_F(AtomicFileStream, RefusesASecondCommit) {
    afstream stream;
    stream.open(path.c_str(), std::ios_base::out);
    stream.commit();
    EXPECT_EQ(FailureOf<std::runtime_error>([&] { stream.commit(); }), "commit invoked on an unknown destination");
}

TEST_F(AtomicFileStream, SaysWhyNoTemporaryFileCanBeCreated) {
    const std::string missing = folder / "missing/log";
    folder.Write("file", "");
    const std::string underFile = folder / "file/log";
    afstream stream;
    errno = 0;
    EXPECT_EQ(FailureOf<std::runtime_error>([&] { stream.open(missing.c_str(), std::ios_base::out); }),
              "unable to create temporary file to write '" + missing + "': No such file or directory");
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(FailureOf<std::runtime_error>([&] { stream.open(underFile.c_str(), std::ios_base::out); }),
              "unable to create temporary file to write '" + underFile + "': Not a directory");
    EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(AtomicFileStream, CanBeOpenedAfterAFailedOpen) {
    afstream stream;
    EXPECT_NE(FailureOf<std::runtime_error>([&] { stream.open((folder / "missing/log").c_str(), std::ios_base::out); }),
              test::kNoFailure);
    stream.open(path.c_str(), std::ios_base::out);
    stream << "new";
    stream.commit();
    EXPECT_EQ(Read(), "new");
}

TEST_F(AtomicFileStream, DiscardsWhatItWasOpenedOnBefore) {
    afstream stream;
    stream.open((folder / "first").c_str(), std::ios_base::out);
    stream << "first";
    stream.open(path.c_str(), std::ios_base::out);
    stream << "second";
    stream.commit();
    EXPECT_EQ(Read(), "second");
    EXPECT_TRUE(Others().empty());
}

TEST_F(AtomicFileStream, ReopensWithACopyOfTheOldContent) {
    std::string old(100'000, 'x');
    old += std::string("\r\n\0end", 6);
    folder.Write("log", old);
    afstream stream;
    stream.reopen(path.c_str(), std::ios_base::out);
    stream << "more";
    EXPECT_EQ(Read(), old);
    stream.commit();
    EXPECT_EQ(Read(), old + "more");
    EXPECT_TRUE(Others().empty());
}

TEST_F(AtomicFileStream, ReopenNeedsAnOldFileWithContent) {
    {
        afstream stream;
        EXPECT_EQ(FailureOf<std::runtime_error>([&] { stream.reopen(path.c_str(), std::ios_base::out); }),
                  "failed to write to temp file: No such file or directory");
        EXPECT_EQ(errno, ENOENT);
    }
    folder.Write("log", "");
    {
        afstream stream;
        errno = EBUSY;
        EXPECT_EQ(FailureOf<std::runtime_error>([&] { stream.reopen(path.c_str(), std::ios_base::out); }),
                  std::string("failed to write to temp file: ") + std::strerror(0));
    }
    EXPECT_TRUE(Others().empty());
    EXPECT_EQ(Read(), "");
}

TEST_F(AtomicFileStream, ReopenOfADirectoryFails) {
    fs::create_directory(path);
    {
        afstream stream;
        EXPECT_EQ(FailureOf<std::runtime_error>([&] { stream.reopen(path.c_str(), std::ios_base::out); }),
                  "failed to write to temp file: Is a directory");
    }
    EXPECT_TRUE(Others().empty());
}

TEST_F(AtomicFileStream, ReopenOfAPipeFailsAtOnce) {
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    {
        afstream stream;
        EXPECT_EQ(FailureOf<std::runtime_error>([&] { stream.reopen(path.c_str(), std::ios_base::out); }),
                  "failed to write to temp file: No such device or address");
    }
    EXPECT_TRUE(Others().empty());
}

TEST_F(AtomicFileStream, ReopenReportsACopyThatBreaksOff) {
    folder.Write("log", std::string(100'000, 'x'));
    for (const unsigned long limit : {0UL, 20'000UL, 99'999UL}) {
        const std::string outcome = test::InForkedChild([&] {
            test::LimitFileSize(limit);
            afstream stream;
            return FailureOf<std::runtime_error>([&] { stream.reopen(path.c_str(), std::ios_base::out); });
        });
        EXPECT_EQ(outcome, "failed to write to temp file: File too large") << limit;
    }
    EXPECT_TRUE(Others().empty());
    EXPECT_EQ(Read().size(), 100'000U);
}

TEST_F(AtomicFileStream, ShowsAFailedWriteInItsState) {
    const std::string outcome = test::InForkedChild([&] {
        test::LimitFileSize(10);
        afstream stream;
        stream.open(path.c_str(), std::ios_base::out);
        stream << "more than ten characters" << std::flush;
        return stream.good() ? "good" : "failed";
    });
    EXPECT_EQ(outcome, "failed");
    EXPECT_TRUE(Others().empty());
}

TEST_F(AtomicFileStream, SaysWhyTheDestinationCannotBeReplaced) {
    fs::create_directories(path + "/occupied");
    std::string temporary;
    {
        afstream stream;
        stream.open(path.c_str(), std::ios_base::out);
        temporary = folder / Others().at(0);
        EXPECT_EQ(FailureOf<std::runtime_error>([&] { stream.commit(); }),
                  "unable to rename '" + temporary + "' to '" + path + "': Is a directory");
        EXPECT_TRUE(fs::exists(temporary));
    }
    EXPECT_FALSE(fs::exists(temporary));
}

TEST_F(AtomicFileStream, ReportsATemporaryFileThatWasTakenAway) {
    folder.Write("log", "old");
    afstream stream;
    stream.open(path.c_str(), std::ios_base::out);
    const std::string temporary = folder / Others().at(0);
    fs::remove(temporary);
    EXPECT_EQ(FailureOf<std::runtime_error>([&] { stream.commit(); }),
              "unable to rename '" + temporary + "' to '" + path + "': No such file or directory");
    EXPECT_EQ(Read(), "old");
}

TEST_F(AtomicFileStream, ReportsPermissionsThatCouldNotBeRead) {
    fs::create_symlink("log", path);  // a link to itself has no permissions to keep
    afstream stream;
    stream.open(path.c_str(), std::ios_base::out);
    stream << "new";
    EXPECT_EQ(
        FailureOf<std::runtime_error>([&] { stream.commit(); }),
        "failed to restore file permissions, file permissions may be incorrect: Too many levels of symbolic links");
    EXPECT_EQ(Read(), "new");
    EXPECT_EQ(ModeOf(path), 0600U);
    EXPECT_TRUE(Others().empty());
}

TEST_F(AtomicFileStream, ReportsPermissionsThatCouldNotBeSet) {
    folder.Write("log", "old");
    const std::string outcome = test::InForkedChild([&] {
        afstream stream;
        stream.open(path.c_str(), std::ios_base::out);
        stream << "new";
        test::FilterSyscalls({{.number = SYS_fchmod, .error = EPERM}});
        return FailureOf<std::runtime_error>([&] { stream.commit(); });
    });
    EXPECT_EQ(outcome,
              "failed to restore file permissions, file permissions may be incorrect: Operation not permitted");
    EXPECT_EQ(Read(), "new");
    EXPECT_TRUE(Others().empty());
}

TEST_F(AtomicFileStream, LeavesTheOldFileWhenTheNewOneDoesNotReachTheDisk) {
    folder.Write("log", "old");
    const std::string outcome = test::InForkedChild([&] {
        afstream stream;
        stream.open(path.c_str(), std::ios_base::out);
        stream << "new";
        const std::string temporary = folder / Others().at(0);
        test::FilterSyscalls({{.number = SYS_fsync, .error = EIO}});
        const std::string failure = FailureOf<std::runtime_error>([&] { stream.commit(); });
        return failure == "unable to sync '" + temporary + "': Input/output error" ? "as expected" : failure;
    });
    EXPECT_EQ(outcome, "as expected");
    EXPECT_EQ(Read(), "old");
    EXPECT_TRUE(Others().empty());
}

TEST_F(AtomicFileStream, SaysWhyTheTemporaryFileCannotBeOpened) {
    folder.Write("log", "old");
    const std::string outcome = test::InForkedChild([&] {
        // The stream gets a descriptor of its own; the file is created by another call.
        test::FilterSyscalls({{.number = SYS_fcntl, .second = F_DUPFD_CLOEXEC, .error = EMFILE}});
        afstream stream;
        return FailureOf<std::runtime_error>([&] { stream.open(path.c_str(), std::ios_base::out); });
    });
    EXPECT_EQ(outcome, "failed to create temp file: Too many open files");
    EXPECT_EQ(Read(), "old");
    EXPECT_TRUE(Others().empty());
}

TEST_F(AtomicFileStream, LetsTheLastOfTwoWritersWin) {
    afstream first;
    afstream second;
    first.open(path.c_str(), std::ios_base::out);
    second.open(path.c_str(), std::ios_base::out);
    first << "first";
    second << "second";
    second.commit();
    EXPECT_EQ(Read(), "second");
    first.commit();
    EXPECT_EQ(Read(), "first");
    EXPECT_TRUE(Others().empty());
}

TEST_F(AtomicFileStream, LeavesNoDescriptorBehind) {
    const std::set<int> before = test::OpenDescriptors();
    {
        afstream committed;
        committed.open(path.c_str(), std::ios_base::out);
        committed.commit();
        afstream failed;
        EXPECT_NE(FailureOf<std::runtime_error>([&] { failed.reopen(path.c_str(), std::ios_base::out); }),
                  test::kNoFailure);
        afstream uncommitted;
        uncommitted.open(path.c_str(), std::ios_base::out);
    }
    EXPECT_EQ(test::OpenDescriptors(), before);
}

}  // namespace
}  // namespace lofter
