#include "base/Logging.h"

#include <cstdio>
#include <filesystem>
#include <functional>
#include <iterator>
#include <regex>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "posix/Descriptor.h"
#include "support/ChildOutcome.h"
#include "support/LogCapture.h"
#include "support/OpenDescriptors.h"
#include "support/SyscallFilter.h"
#include "support/TemporaryDirectory.h"

namespace lofter {
namespace {

namespace fs = std::filesystem;
using test::InForkedChild;

// Systems that came later lack the older call.
#ifdef SYS_dup2
constexpr int kDup2 = SYS_dup2;
#else
constexpr int kDup2 = SYS_dup3;
#endif

std::string TargetOf(int stream) {
    std::error_code error;
    const fs::path target = fs::read_symlink("/proc/self/fd/" + std::to_string(stream), error);
    return error ? "closed" : target.string();
}

std::string Targets() {
    return TargetOf(STDIN_FILENO) + " " + TargetOf(STDOUT_FILENO) + " " + TargetOf(STDERR_FILENO);
}

void CloseStream(int stream) {
    posix::Descriptor(stream).Reset();
}

// Redirects in a child, and says what was logged and where its standard streams lead then.
std::string Redirected(
    const std::string& logPath, const std::function<void()>& prepare = [] {}) {
    return InForkedChild([&] {
        const test::LogCapture log;
        prepare();
        RedirectStandardStreams(logPath);
        std::string outcome;
        for (const std::string& line : log.Lines()) {
            outcome += line + "; ";
        }
        return outcome + Targets();
    });
}

class StandardStreams : public testing::Test {
  protected:
    test::TemporaryDirectory folder;
    const std::string log = folder / "log";
};

TEST_F(StandardStreams, LeadFromDevNullToTheLogFile) {
    EXPECT_EQ(Redirected(log), "/dev/null " + log + " " + log);
}

TEST_F(StandardStreams, AllLeadToDevNullWhenThatIsTheLogFile) {
    EXPECT_EQ(Redirected("/dev/null"), "/dev/null /dev/null /dev/null");
}

TEST_F(StandardStreams, AppendToALogFileThatAllMayRead) {
    folder.Write("log", "old\n");
    EXPECT_EQ(InForkedChild([&] {
                  umask(022);
                  RedirectStandardStreams(log);
                  RedirectStandardStreams(folder / "new");
                  RedirectStandardStreams(log);
                  const bool written = write(STDOUT_FILENO, "out\n", 4) == 4 && write(STDERR_FILENO, "err\n", 4) == 4;
                  return written ? "written" : "not written";
              }),
              "written");
    EXPECT_EQ(folder.Read("log"), "old\nout\nerr\n");
    struct stat status {};
    ASSERT_EQ(stat((folder / "new").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0644U);
}

TEST_F(StandardStreams, KeepOutputAndErrorAfterOneWarningWhenTheLogFileCannotBeOpened) {
    const std::string missing = folder / "missing/log";
    EXPECT_EQ(Redirected(missing), "Failed opening log file " + missing + "; /dev/null " + TargetOf(STDOUT_FILENO) +
                                       " " + TargetOf(STDERR_FILENO));
}

TEST_F(StandardStreams, NeverFollowALinkToTheLogFile) {
    fs::create_symlink(folder.Write("victim", ""), log);
    EXPECT_TRUE(Redirected(log).starts_with("Failed opening log file " + log + "; /dev/null "));
}

TEST_F(StandardStreams, NeverWaitForTheReaderOfAPipe) {
    ASSERT_EQ(mkfifo(log.c_str(), 0600), 0);
    EXPECT_TRUE(Redirected(log).starts_with("Failed opening log file " + log + "; /dev/null "));
    const posix::Descriptor reader(open(log.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    EXPECT_TRUE(Redirected(log).starts_with("Failed opening log file " + log + "; /dev/null "));
}

// What a program is given waits when it has to, and outlives the program's start.
TEST_F(StandardStreams, AreInheritedAndBlock) {
    EXPECT_EQ(InForkedChild([&] {
                  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
                      CloseStream(stream);
                  }
                  RedirectStandardStreams(log);
                  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
                      if (fcntl(stream, F_GETFD) != 0 || (fcntl(stream, F_GETFL) & O_NONBLOCK) != 0) {
                          return std::to_string(stream) + " is not";
                      }
                  }
                  return std::string("all");
              }),
              "all");
}

TEST_F(StandardStreams, KeepInputAfterAWarningWhenThereIsNoDevNull) {
    EXPECT_EQ(InForkedChild([&] {
                  const test::LogCapture capture;
                  const std::string before = TargetOf(STDIN_FILENO);
                  const posix::Descriptor processes(open("/proc/self/fd", O_RDONLY | O_DIRECTORY));
                  test::EnterRoot(folder.Path());
                  RedirectStandardStreams("/log");
                  char target[4096] = {};
                  const ssize_t length = readlinkat(processes.Get(), "0", target, sizeof target - 1);
                  return capture.Lines().at(0) + (length > 0 && before == target ? "; kept" : "; changed");
              }),
              "Failed opening /dev/null; kept");
    EXPECT_TRUE(fs::exists(log));
}

TEST_F(StandardStreams, StayAsTheyAreAfterAWarningEachWhenTheyCannotBeReplaced) {
    EXPECT_EQ(InForkedChild([&] {
                  const test::LogCapture capture;
                  const std::string before = Targets();
                  test::FilterSyscalls({{.number = kDup2, .error = EBUSY}});
                  RedirectStandardStreams(log);
                  std::string outcome;
                  for (const std::string& line : capture.Lines(kWarning)) {
                      outcome += line + "; ";
                  }
                  return outcome + (Targets() == before ? "kept" : "changed");
              }),
              "Failed redirecting stdin to /dev/null; Failed redirecting stdout to " + log +
                  "; Failed redirecting stderr to " + log + "; kept");
}

TEST_F(StandardStreams, WarnAtTheLevelOfWarnings) {
    EXPECT_EQ(InForkedChild([&] {
                  const test::LogCapture capture;
                  RedirectStandardStreams(folder / "missing/log");
                  return test::TextOf(capture.Entries().at(0));
              }),
              "warning Failed opening log file " + folder / "missing/log");
}

TEST_F(StandardStreams, AreOpenAfterwardsAlsoWhenTheyWereClosedBefore) {
    for (const int closed : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        EXPECT_EQ(Redirected(log, [&] { CloseStream(closed); }), "/dev/null " + log + " " + log) << closed;
    }
    const auto closeAll = [] {
        for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            CloseStream(stream);
        }
    };
    EXPECT_EQ(Redirected(log, closeAll), "/dev/null " + log + " " + log);
}

TEST_F(StandardStreams, AreAllThatRedirectionLeavesOpen) {
    EXPECT_EQ(InForkedChild([&] {
                  const std::set<int> before = test::OpenDescriptors();
                  RedirectStandardStreams(log);
                  RedirectStandardStreams(folder / "missing/log");
                  return test::OpenDescriptors() == before ? "none" : "some";
              }),
              "none");
}

TEST_F(StandardStreams, NeverTakeThePathForAFormat) {
    const std::string odd = folder / "%s%n/log";
    EXPECT_TRUE(Redirected(odd).starts_with("Failed opening log file " + odd + "; "));
}

TEST(LoggingSetUp, SendsLinesToStandardOutputWithTimeStampsAndMilliseconds) {
    const test::TemporaryDirectory folder;
    EXPECT_EQ(InForkedChild([&] {
                  RedirectStandardStreams(folder / "out");
                  InitializeLogging("lofter");
                  Log_Level(kInfo, "hello %d\n", 1);
                  Log_Level(kInfo + 1, "too fine\n");
                  return "done";
              }),
              "done");
    EXPECT_TRUE(std::regex_match(
        folder.Read("out"), std::regex("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} info lofter: hello 1\n")))
        << folder.Read("out");
}

TEST(LoggingSetUp, MakesStandardOutputUnbufferedAndCopiesNothingToStandardError) {
    const test::TemporaryDirectory folder;
    EXPECT_EQ(InForkedChild([&] {
                  RedirectStandardStreams(folder / "out");
                  const posix::Descriptor error(open((folder / "err").c_str(), O_WRONLY | O_CREAT, 0600));
                  dup2(error.Get(), STDERR_FILENO);
                  std::fputs("before ", stdout);
                  InitializeLogging("lofter");
                  std::fputs("after ", stdout);  // the child ends without flushing anything
                  Log_Level(kError, "line\n");
                  return "done";
              }),
              "done");
    EXPECT_TRUE(folder.Read("out").starts_with("before after ")) << folder.Read("out");
    EXPECT_TRUE(folder.Read("out").ends_with(" error lofter: line\n")) << folder.Read("out");
    EXPECT_EQ(folder.Read("err"), "");
}

}  // namespace
}  // namespace lofter
