#include "ProgramLauncher.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/Logging.h"
#include "posix/Descriptor.h"
#include "support/ChildOutcome.h"
#include "support/TemporaryDirectory.h"

namespace lofter {
namespace {

class ProgramLauncher : public testing::Test {
  protected:
    // Runs the shell script with one argument, its output in the file "log".
    bool Launch(const std::string& script) {
        const std::string program = folder.WriteScript("program", script);
        const char* const arguments[] = {program.c_str(), "-i", nullptr};
        return LaunchProgram(arguments, environment, log.c_str());
    }

    char variable[9] = "GREET=hi";
    char* environment[2] = {variable, nullptr};
    test::TemporaryDirectory folder;
    const std::string log = folder / "log";
};

TEST_F(ProgramLauncher, RunsTheProgramToItsEndWithArgumentsAndEnvironment) {
    EXPECT_TRUE(Launch("echo \"$0 $* $GREET\"; echo problem >&2"));
    EXPECT_EQ(folder.Read("log"), (folder / "program") + " -i hi\nproblem\n");
}

TEST_F(ProgramLauncher, AppendsToTheLog) {
    folder.Write("log", "old\n");
    EXPECT_TRUE(Launch("echo new"));
    EXPECT_EQ(folder.Read("log"), "old\nnew\n");
}

TEST_F(ProgramLauncher, SucceedsOnlyWithStatusZero) {
    EXPECT_FALSE(Launch("exit 1"));
    EXPECT_FALSE(Launch("exit 255"));
    EXPECT_FALSE(Launch("kill -9 $$"));
}

TEST_F(ProgramLauncher, GivesTheProgramNothingToRead) {
    EXPECT_TRUE(Launch("read line && exit 1; exit 0"));
}

TEST_F(ProgramLauncher, PassesNoDescriptorOn) {
    const posix::Descriptor inherited(open("/dev/null", O_RDONLY));  // not close-on-exec
    ASSERT_GT(inherited.Get(), STDERR_FILENO);
    EXPECT_TRUE(Launch("test ! -e /proc/$$/fd/" + std::to_string(inherited.Get())));
}

TEST_F(ProgramLauncher, LeavesNoChildBehind) {
    EXPECT_TRUE(Launch("exit 0"));
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

TEST_F(ProgramLauncher, LogsAProgramThatCannotBeExecuted) {
    EXPECT_EQ(test::InForkedChild([&] {
                  InitializeLogging("lofter");
                  const char* const arguments[] = {"/no/such/program", nullptr};
                  return LaunchProgram(arguments, environment, log.c_str()) ? "succeeded" : "failed";
              }),
              "failed");
    EXPECT_TRUE(
        folder.Read("log").ends_with(" error lofter: execve(/no/such/program) failure: No such file or directory\n"))
        << folder.Read("log");
}

TEST_F(ProgramLauncher, FailsWhenNoProcessCanBeCreated) {
    const char* const arguments[] = {"/bin/true", nullptr};
    ASSERT_TRUE(LaunchProgram(arguments, environment, "/dev/null"));
    EXPECT_EQ(test::InForkedChild([&] {
                  test::ForbidProcesses();
                  return LaunchProgram(arguments, environment, "/dev/null") ? "succeeded" : "failed";
              }),
              "failed");
}

}  // namespace
}  // namespace lofter
