#include "console/InteractiveMode.h"

#include <array>
#include <csignal>
#include <functional>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/vt.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "console/Progress.h"
#include "support/LogCapture.h"
#include "support/SyscallFilter.h"
#include "support/TerminalProcess.h"
#include "tslibs/dictionary.h"
#include "tslibs/log.h"

namespace lofter {
namespace {

using test::TerminalProcess;

constexpr char kNoConsole[] = "/no/such/console";

constexpr char kContinue[] = "\033[35m(c)ontinue\033[0m";
constexpr char kExecute[] = "\033[32m(e)xecute\033[0m";
constexpr char kTroubleshoot[] = "\033[33m(t)roubleshoot\033[0m";
constexpr char kSkip[] = "\033[31m(s)kip\033[0m";

std::string Question(const std::string& plugin) {
    return "current plugin: \033[36m" + plugin + "\n" + kContinue + "\t" + kExecute + "\t" + kTroubleshoot + "\t" +
           kSkip + "\033[?25l";
}

constexpr char kAnswered[] = "\033[?25h";

// The redrawn menu in which only the answer kept its colour.
std::string Redrawn(char answer) {
    std::string menu = "\r";
    menu += answer == 'c' ? kContinue : "\033[37m(c)ontinue\033[0m";
    menu += answer == 'e' ? "\t" + std::string(kExecute) : "\t\033[37m(e)xecute\033[0m";
    menu += answer == 't' ? "\t" + std::string(kTroubleshoot) : "\t\033[37m(t)roubleshoot\033[0m";
    menu += answer == 's' ? "\t" + std::string(kSkip) : "\t\033[37m(s)kip\033[0m";
    return menu + "\n";
}

std::string Exchange(const std::string& plugin, char answer) {
    return Question(plugin) + kAnswered + Redrawn(answer);
}

struct Scene {
    std::vector<std::string> requirements;
    std::vector<std::string> plugins;
    bool interactive = true;
};

// Walks through the plugins and tells what became of each ("a b" for executed ones, "-a" for skipped ones), what was
// logged, and whether the next one would be asked about.
std::string Walk(const Scene& scene, const char* console = kNoConsole) {
    ShowProgress();  // as every run does; shown again, it is not logged again
    const test::LogCapture log;
    Settings settings;
    settings.interactive = scene.interactive;
    settings.interactiveModeRequirements = scene.requirements;
    InteractiveMode mode(settings, console);
    std::string story;
    for (const std::string& plugin : scene.plugins) {
        story += (story.empty() ? "" : " ") + std::string(mode.MayExecute(plugin) ? "" : "-") + plugin;
    }
    story += settings.interactive ? "; on" : "; off";
    for (const std::string& requirement : settings.interactiveModeRequirements) {
        story += "; awaits " + requirement;
    }
    for (const auto& entry : log.Entries()) {
        story += "; " + test::TextOf(entry);
    }
    return story;
}

std::function<std::string()> Walking(const Scene& scene) {
    return [scene] {
        return Walk(scene);
    };
}

// Until the operator is asked and keys are read, so that none is echoed. Returns what was written up to then.
std::string WaitForQuestion(TerminalProcess& boot) {
    const std::string written = boot.WaitForText("\033[?25l");
    boot.WaitForKeys();
    return written;
}

TEST(InteractiveMode, AsksInFrontOfEveryPlugin) {
    TerminalProcess boot(Walking({{}, {"net", "disk"}}));
    EXPECT_EQ(WaitForQuestion(boot), Question("net"));
    boot.Type("e");
    EXPECT_EQ(WaitForQuestion(boot), kAnswered + Redrawn('e') + Question("disk"));
    boot.Type("e");
    std::string rest;
    EXPECT_EQ(boot.WaitForResult(&rest), "net disk; on");
    EXPECT_EQ(rest, kAnswered + Redrawn('e'));
}

TEST(InteractiveMode, IsSilentUnlessItIsOn) {
    TerminalProcess boot(Walking({{"net"}, {"net", "disk"}, false}));
    std::string written;
    EXPECT_EQ(boot.WaitForResult(&written), "net disk; off; awaits net");
    EXPECT_EQ(written, "");
}

TEST(InteractiveMode, ReadsKeysWithoutAnEchoOnlyWhileItAsks) {
    TerminalProcess boot(Walking({{}, {"net"}}));
    const termios& before = boot.initialModes;
    WaitForQuestion(boot);
    EXPECT_EQ(boot.terminal.Modes().c_lflag, before.c_lflag & ~static_cast<tcflag_t>(ICANON | ECHO));
    boot.Type("e");
    boot.WaitForText(kAnswered);
    EXPECT_EQ(boot.terminal.Modes().c_lflag, before.c_lflag);
    boot.WaitForResult();
    EXPECT_EQ(boot.terminal.Modes().c_lflag, before.c_lflag);
}

TEST(InteractiveMode, TakesKeysInUpperCase) {
    TerminalProcess boot(Walking({{}, {"a", "b", "c"}}));
    for (const char* key : {"E", "S", "C"}) {
        WaitForQuestion(boot);
        boot.Type(key);
    }
    EXPECT_EQ(boot.WaitForResult(), "a -b c; off; info skipping plugin b (interactive mode request)");
}

TEST(InteractiveMode, IgnoresEveryOtherKeyWithoutAnEcho) {
    std::string others;
    for (int byte = 1; byte < 256; ++byte) {
        if (std::string("cestCEST\003\021\023\032\034").find(static_cast<char>(byte)) == std::string::npos) {
            others += static_cast<char>(byte);
        }
    }
    TerminalProcess boot(Walking({{}, {"net"}}));
    WaitForQuestion(boot);
    boot.Type(others);
    boot.Type("e");
    std::string rest;
    EXPECT_EQ(boot.WaitForResult(&rest), "net; on");
    EXPECT_EQ(rest, kAnswered + Redrawn('e'));
}

TEST(InteractiveMode, TakesAnswersThatWereTypedAhead) {
    TerminalProcess boot(Walking({{}, {"a", "b", "c", "d"}}));
    WaitForQuestion(boot);
    boot.Type("esxe");
    boot.WaitForText(Question("d"));
    boot.WaitForKeys();
    boot.Type("e");
    EXPECT_EQ(boot.WaitForResult(), "a -b c d; on; info skipping plugin b (interactive mode request)");
}

TEST(InteractiveMode, AsksNoMoreAfterContinue) {
    TerminalProcess boot(Walking({{}, {"a", "b", "c"}}));
    WaitForQuestion(boot);
    boot.Type("c");
    std::string rest;
    EXPECT_EQ(boot.WaitForResult(&rest), "a b c; off");
    EXPECT_EQ(rest.substr(rest.find(kAnswered)), kAnswered + Redrawn('c'));
}

TEST(InteractiveMode, SkipsThePluginAndSaysSo) {
    TerminalProcess boot(Walking({{}, {"100%s"}}));
    WaitForQuestion(boot);
    const termios& before = boot.initialModes;
    boot.Type("s");
    std::string rest;
    EXPECT_EQ(boot.WaitForResult(&rest), "-100%s; on; info skipping plugin 100%s (interactive mode request)");
    EXPECT_EQ(rest, kAnswered + Redrawn('s'));
    EXPECT_EQ(boot.terminal.Modes().c_iflag, before.c_iflag);
    EXPECT_EQ(boot.terminal.Modes().c_lflag & (ICANON | ECHO), static_cast<tcflag_t>(ICANON | ECHO));
}

TEST(InteractiveMode, ReportsTheSkipBeforeItRedrawsTheMenu) {
    TerminalProcess boot([] {
        Log_AddOutput(Log_NewStdioOutput(Dictionary_Create()));
        return Walk({{}, {"net"}});
    });
    WaitForQuestion(boot);
    boot.Type("s");
    EXPECT_NE(boot.WaitForText("\r").find("skipping plugin net (interactive mode request)\n\r"), std::string::npos);
}

TEST(InteractiveMode, RunsAShellAndThenThePlugin) {
    TerminalProcess boot(Walking({{}, {"net", "disk"}}));
    WaitForQuestion(boot);
    const termios during = boot.terminal.Modes();
    boot.Type("t");
    boot.WaitForText(kAnswered + Redrawn('t'));
    boot.Type("echo in the she''ll; exit 3\n");
    boot.WaitForText("in the shell\n");
    EXPECT_EQ(WaitForQuestion(boot), "\033[2K" + Question("disk"));
    EXPECT_EQ(boot.terminal.Modes().c_lflag, during.c_lflag);
    EXPECT_EQ(boot.terminal.Modes().c_iflag, during.c_iflag);
    boot.Type("e");
    EXPECT_EQ(boot.WaitForResult(), "net disk; on");
}

TEST(InteractiveMode, LeavesWhatWasTypedAheadToTheShell) {
    TerminalProcess boot(Walking({{}, {"net"}}));
    WaitForQuestion(boot);
    boot.Type("techo typed ahe''ad\nexit\n");
    boot.WaitForText("typed ahead\n");
    EXPECT_EQ(boot.WaitForResult(), "net; on");
}

TEST(InteractiveMode, DoesNotAskBeforeAllRequirementsWereActivated) {
    TerminalProcess boot(Walking({{"a", "b"}, {"x", "b", "y", "a", "z"}}));
    EXPECT_EQ(WaitForQuestion(boot), Question("z"));
    boot.Type("s");
    EXPECT_EQ(boot.WaitForResult(), "x b y a -z; on; info skipping plugin z (interactive mode request)");
}

TEST(InteractiveMode, MeetsARequirementThatIsNamedRepeatedlyAtOnce) {
    TerminalProcess boot(Walking({{"a", "b", "a"}, {"a"}}));
    std::string written;
    EXPECT_EQ(boot.WaitForResult(&written), "a; on; awaits b");
    EXPECT_EQ(written, "");
}

TEST(InteractiveMode, NeverAsksWhenARequirementNeverRuns) {
    TerminalProcess boot(Walking({{"never"}, {"a", "b", "c"}}));
    std::string written;
    EXPECT_EQ(boot.WaitForResult(&written), "a b c; on; awaits never");
    EXPECT_EQ(written, "");
}

TEST(InteractiveMode, KeepsReadingAtEndOfInput) {
    TerminalProcess boot([] {
        const posix::Descriptor ended(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        ::dup2(ended.Get(), STDIN_FILENO);
        return Walk({{}, {"net"}});
    });
    boot.WaitForText(Question("net"));
    boot.WaitForPauses(3);
}

TEST(InteractiveMode, IgnoresEndOfInputFromTheTerminal) {
    TerminalProcess boot(Walking({{}, {"net"}}));
    WaitForQuestion(boot);
    boot.Type("\004\004");
    boot.Type("e");
    EXPECT_EQ(boot.WaitForResult(), "net; on");
}

TEST(InteractiveMode, AsksWithWhateverStateTheTerminalHas) {
    TerminalProcess boot([] {
        std::array<int, 2> ends{};
        EXPECT_EQ(::pipe(ends.data()), 0);
        EXPECT_EQ(::write(ends[1], "e", 1), 1);
        ::dup2(ends[0], STDIN_FILENO);
        return Walk({{}, {"net"}});
    });
    std::string written;
    EXPECT_EQ(boot.WaitForResult(&written),
              "net; on"
              "; error unable to get terminal io state."
              "; error unable to set terminal io state."
              "; error unable to restore terminal io state.");
    EXPECT_EQ(written, Exchange("net", 'e'));
}

// Walks with a console that accepts every switch, until it is switched to the given terminal: that ends the process.
std::function<std::string()> WalkingUntilConsoleShows(int terminal, const Scene& scene) {
    return [=] {
        test::FilterSyscalls({{SYS_ioctl, VT_ACTIVATE, terminal, 0, true}, {SYS_ioctl, VT_ACTIVATE, -1, 0, false}});
        return Walk(scene, "/proc/self/fd/1");
    };
}

void ExpectSwitched(int status) {
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGSYS);
}

TEST(InteractiveMode, ShowsTheFirstTerminalBeforeItAsks) {
    TerminalProcess boot(WalkingUntilConsoleShows(1, {{}, {"net"}}));
    std::string written;
    ExpectSwitched(boot.WaitForEnd(&written));
    EXPECT_EQ(written, "");
}

TEST(InteractiveMode, ShowsTheEleventhTerminalAfterContinue) {
    TerminalProcess boot(WalkingUntilConsoleShows(11, {{}, {"net", "disk"}}));
    WaitForQuestion(boot);
    boot.Type("c");
    std::string written;
    ExpectSwitched(boot.WaitForEnd(&written));
    EXPECT_EQ(written, kAnswered + Redrawn('c'));
}

TEST(InteractiveMode, ShowsTheFirstTerminalWhenTheLastRequirementIsMet) {
    TerminalProcess boot(WalkingUntilConsoleShows(1, {{"a", "b"}, {"a", "b"}}));
    ExpectSwitched(boot.WaitForEnd());
    TerminalProcess unmet(WalkingUntilConsoleShows(1, {{"a", "b"}, {"a", "x"}}));
    EXPECT_EQ(unmet.WaitForResult(), "a x; on; awaits b");
}

}  // namespace
}  // namespace lofter
