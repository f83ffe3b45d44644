#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <list>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "autocli/CommandRun.h"
#include "autocli/autocli.h"
#include "posix/Descriptor.h"
#include "support/OpenDescriptors.h"
#include "support/TemporaryDirectory.h"
#include "support/WaitUntil.h"

namespace lofter {
namespace {

using Words = std::vector<std::string>;
using test::TemporaryDirectory;

// Standard error goes to a file meanwhile.
class StandardErrorFile {
  public:
    explicit StandardErrorFile(const std::string& path) : saved(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)) {
        const posix::Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
        ::dup2(file.Get(), STDERR_FILENO);
    }
    ~StandardErrorFile() { ::dup2(saved.Get(), STDERR_FILENO); }
    StandardErrorFile(const StandardErrorFile&) = delete;
    StandardErrorFile& operator=(const StandardErrorFile&) = delete;

  private:
    posix::Descriptor saved;
};

class Dispatcher : public testing::Test {
  protected:
    // Adds the directory that the test's commands are in, then runs one.
    Words ErrorsOf(const std::string& line) {
        AutoCli::Dispatcher dispatcher;
        dispatcher.AddExternalDirectory(directory.Path());
        return ErrorsOf(dispatcher, line);
    }
    static Words ErrorsOf(AutoCli::Dispatcher& dispatcher, const std::string& line) {
        AutoCli::OptionParser parser;
        EXPECT_FALSE(parser.ParseString(line));
        std::list<std::string> path(parser.GetCommandPath().begin(), parser.GetCommandPath().end());
        const auto input = AutoCli::CommandInput::New();
        const auto output = AutoCli::CommandOutput::New();
        input->SetDispatcher("lofter");
        input->SetCommandPath(path);
        for (const auto& [name, value] : parser.GetCommandParameters()) {
            input->AddParameter(name, value);
        }
        dispatcher.ExecuteCommand(input, output);
        EXPECT_EQ(output->HasError(), !output->GetErrors().empty());
        return output->GetErrors();
    }
    std::string Out() const { return "'" + (directory / "out") + "'"; }

    TemporaryDirectory directory;
};

TEST_F(Dispatcher, RunsTheFileThatIsNamedLikeTheCommand) {
    directory.WriteScript("network.ip.set", "echo ran >" + Out());
    EXPECT_EQ(ErrorsOf("network ip set"), Words());
    EXPECT_EQ(directory.Read("out"), "ran\n");
}

TEST_F(Dispatcher, PassesParametersAsArgumentsInOrder) {
    directory.WriteScript("show", "printf '%s\\n' \"$@\" >" + Out());
    EXPECT_EQ(ErrorsOf("show --b='x y' --a --c=\\'"), Words());
    EXPECT_EQ(directory.Read("out"), "--b=x y\n--a=\n--c='\n");
}

TEST_F(Dispatcher, TellsTheCommandOnWhoseBehalfItRuns) {
    ::setenv("QORCLI_DISPATCHER", "somebody", 1);
    directory.WriteScript("show", "env | grep ^QORCLI_DISPATCHER= >" + Out());
    EXPECT_EQ(ErrorsOf("show"), Words());
    ::unsetenv("QORCLI_DISPATCHER");
    EXPECT_EQ(directory.Read("out"), "QORCLI_DISPATCHER=lofter\n");
}

TEST_F(Dispatcher, GivesCommandsAnEmptyInputAndNoOtherDescriptors) {
    directory.WriteScript("show", "wc -c >" + Out() + "; ls /proc/self/fd | wc -w >>" + Out());
    const posix::Descriptor inheritable(::open("/dev/null", O_RDONLY));
    EXPECT_EQ(ErrorsOf("show"), Words());
    // Standard streams, and the one with which ls reads the directory.
    EXPECT_EQ(directory.Read("out"), "0\n4\n");
}

TEST_F(Dispatcher, GivesCommandsDefaultSignalDispositions) {
    const auto before = ::signal(SIGPIPE, SIG_IGN);
    sigset_t blocked;
    sigset_t maskBefore;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &blocked, &maskBefore);
    directory.WriteScript("show", "sed -nE 's/^Sig(Blk|Ign):.(.*)/0x\\2/p' /proc/self/status >" + Out());
    EXPECT_EQ(ErrorsOf("show"), Words());
    ::pthread_sigmask(SIG_SETMASK, &maskBefore, nullptr);
    ::signal(SIGPIPE, before);
    std::istringstream masks(directory.Read("out"));
    std::string blockedMask;
    std::string ignoredMask;
    masks >> blockedMask >> ignoredMask;
    EXPECT_EQ(std::stoull(blockedMask, nullptr, 16), 0U);
    EXPECT_EQ(std::stoull(ignoredMask, nullptr, 16) & (1ULL << (SIGPIPE - 1)), 0U);
}

TEST_F(Dispatcher, ReportsAnUnknownCommandWithBlanksBetweenTheWords) {
    EXPECT_EQ(ErrorsOf("network ip set"), Words({"unknown command: network ip set"}));
}

TEST_F(Dispatcher, DoesNotTakeAWordWithDotsForSeveralWords) {
    directory.WriteScript("network.ip.set", "");
    EXPECT_EQ(ErrorsOf("network.ip set"), Words({"unknown command: network.ip set"}));
    EXPECT_EQ(ErrorsOf("../network"), Words({"unknown command: ../network"}));
}

TEST_F(Dispatcher, KnowsOnlyExecutableRegularFilesOfTheFirstLevel) {
    directory.Write("plain", "");
    directory.WriteScript("folder/inner", "");
    EXPECT_EQ(ErrorsOf("plain"), Words({"unknown command: plain"}));
    EXPECT_EQ(ErrorsOf("folder"), Words({"unknown command: folder"}));
    EXPECT_EQ(ErrorsOf("inner"), Words({"unknown command: inner"}));
}

TEST_F(Dispatcher, PrefersTheDirectoryAddedFirst) {
    directory.WriteScript("first/show", "echo first >" + Out());
    directory.WriteScript("second/show", "echo second >" + Out());
    directory.WriteScript("second/other", "");
    AutoCli::Dispatcher dispatcher;
    dispatcher.AddExternalDirectory(directory / "first");
    dispatcher.AddExternalDirectory(directory / "second");
    EXPECT_EQ(ErrorsOf(dispatcher, "show"), Words());
    EXPECT_EQ(directory.Read("out"), "first\n");
    EXPECT_EQ(ErrorsOf(dispatcher, "other"), Words());
}

TEST_F(Dispatcher, ReadsADirectoryOnce) {
    AutoCli::Dispatcher dispatcher;
    dispatcher.AddExternalDirectory(directory.Path());
    directory.WriteScript("late", "");
    EXPECT_EQ(ErrorsOf(dispatcher, "late"), Words({"unknown command: late"}));
}

TEST_F(Dispatcher, ThrowsForADirectoryThatCannotBeReadAndKeepsTheOthers) {
    directory.WriteScript("show", "");
    AutoCli::Dispatcher dispatcher;
    EXPECT_THROW(dispatcher.AddExternalDirectory(directory / "missing"), std::exception);
    dispatcher.AddExternalDirectory(directory.Path());
    EXPECT_EQ(ErrorsOf(dispatcher, "show"), Words());
}

TEST_F(Dispatcher, ReportsEveryLineOfAFailedCommandsStandardError) {
    directory.WriteScript("fail", "echo one >&2; echo two >&2; printf three >&2; exit 3");
    EXPECT_EQ(ErrorsOf("fail"), Words({"one", "two", "three"}));
}

TEST_F(Dispatcher, ReportsTheExitStatusOfACommandThatFailedSilently) {
    directory.WriteScript("fail", "exit 3");
    EXPECT_EQ(ErrorsOf("fail"), Words({"exited with status 3"}));
}

TEST_F(Dispatcher, ReportsTheSignalThatEndedACommand) {
    directory.WriteScript("fail", "kill -9 $$");
    EXPECT_EQ(ErrorsOf("fail"), Words({"killed by signal 9"}));
}

TEST_F(Dispatcher, ReportsAFileThatCannotBeExecuted) {
    const std::string file = directory.Write("odd", "#!/no/such/interpreter\n");
    std::filesystem::permissions(file, std::filesystem::perms::owner_all);
    EXPECT_EQ(ErrorsOf("odd"), Words({"cannot run " + file + ": No such file or directory"}));
}

TEST_F(Dispatcher, SendsWhatASuccessfulCommandWarnsOfToItsOwnStandardError) {
    directory.WriteScript("warn", "echo careful >&2");
    {
        const StandardErrorFile file(directory / "errors");
        EXPECT_EQ(ErrorsOf("warn"), Words());
    }
    EXPECT_EQ(directory.Read("errors"), "careful\n");
}

TEST_F(Dispatcher, KeepsABoundedPartOfAHugeStandardError) {
    directory.WriteScript("flood", "head -c 100000000 /dev/zero | tr '\\0' x >&2; exit 1");
    const Words errors = ErrorsOf("flood");
    ASSERT_EQ(errors.size(), 2U);
    EXPECT_EQ(errors[0], std::string(platform::kKeptErrorText, 'x'));
    EXPECT_EQ(errors[1],
              "(" + std::to_string(100000000 - platform::kKeptErrorText) + " more bytes of standard error dropped)");
}

TEST_F(Dispatcher, WaitsForACommandThatClosedItsOutput) {
    directory.WriteScript("mute", "exec >&- 2>&-; echo done >" + Out() + "; exit 4");
    EXPECT_EQ(ErrorsOf("mute"), Words({"exited with status 4"}));
    EXPECT_EQ(directory.Read("out"), "done\n");
}

TEST_F(Dispatcher, DoesNotWaitForABackgroundChildAndSavesWhatItWritesLater) {
    ASSERT_EQ(::mkfifo((directory / "go").c_str(), 0600), 0);
    directory.WriteScript("daemon", "(read line <'" + (directory / "go") + "'; echo late >&2; echo end >" + Out() +
                                        ") & echo early >&2; exit 1");
    {
        const StandardErrorFile file(directory / "errors");
        EXPECT_EQ(ErrorsOf("daemon"), Words({"early"}));
    }
    EXPECT_EQ(directory.Read("out"), "");
    const posix::Descriptor go(::open((directory / "go").c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_EQ(::write(go.Get(), "\n", 1), 1);
    EXPECT_TRUE(test::WaitUntil([&] { return directory.Read("out") == "end\n"; }));
    EXPECT_TRUE(test::WaitUntil([&] { return directory.Read("errors") == "late\n"; }));
}

TEST_F(Dispatcher, LeavesNoDescriptorAndNoChildBehind) {
    directory.WriteScript("fail", "echo one >&2; exit 3");
    directory.WriteScript("daemon", "sleep 0.1 & exit 0");
    const std::set<int> before = lofter::test::OpenDescriptors();
    ErrorsOf("fail");
    ErrorsOf("daemon");
    ErrorsOf("unknown");
    EXPECT_EQ(lofter::test::OpenDescriptors(), before);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

}  // namespace
}  // namespace lofter
