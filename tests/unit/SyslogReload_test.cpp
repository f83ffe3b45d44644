#include "SyslogReload.h"

#include <climits>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <boost/algorithm/string/replace.hpp>
#include <gtest/gtest.h>
#include <unistd.h>

#include "base/Logging.h"
#include "base/Paths.h"
#include "support/ChildOutcome.h"
#include "support/Faults.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

namespace lofter {
namespace {

std::optional<pid_t> Read(const std::string& text) {
    std::istringstream input(text);
    return ReadProcessId(input);
}

TEST(ReadProcessId, TakesTheFirstDecimalInteger) {
    EXPECT_EQ(Read("1"), 1);
    EXPECT_EQ(Read("1234\n"), 1234);
    EXPECT_EQ(Read(" \t4711\r\n\n"), 4711);
    EXPECT_EQ(Read("+4711"), 4711);
    EXPECT_EQ(Read("0004711"), 4711);
    EXPECT_EQ(Read("2147483647"), 2147483647);
}

TEST(ReadProcessId, DoesNotMindWhatFollows) {
    for (const std::string rest : {" abc", "abc", " 12", "\n\nsecond line", ".5", "e3", "-1"}) {
        EXPECT_EQ(Read("4711" + rest), 4711) << rest;
    }
    EXPECT_EQ(Read(std::string("4711\0", 5)), 4711);
}

TEST(ReadProcessId, NeverTakesAProcessGroupOrEveryProcess) {
    EXPECT_EQ(Read("0"), std::nullopt);
    EXPECT_EQ(Read("-1"), std::nullopt);
    EXPECT_EQ(Read("-1234\n"), std::nullopt);
}

TEST(ReadProcessId, RefusesANumberOutOfRange) {
    EXPECT_EQ(Read("2147483648"), std::nullopt);
    EXPECT_EQ(Read("4294967297"), std::nullopt);
    EXPECT_EQ(Read("99999999999999999999999999"), std::nullopt);
}

TEST(ReadProcessId, RefusesTextThatIsNoNumber) {
    for (const std::string text : {"", "\n", "abc", "0x10", ".5", "pid 7", "- 7", "+", "+-7"}) {
        EXPECT_EQ(Read(text), std::nullopt) << text;
    }
    EXPECT_EQ(Read(std::string(10UL << 20U, '1')), std::nullopt);
}

TEST(ReadProcessId, RefusesAStreamThatCannotBeRead) {
    std::istringstream input("7");
    input.setstate(std::ios_base::badbit);
    EXPECT_EQ(ReadProcessId(input), std::nullopt);
}

int signalsReceived = 0;

class SyslogReload : public testing::Test {
  protected:
    // Reloads on a host that has the files of the folder, and says what was logged and how often the process, for
    // which the pid file's daemon may be taken, was signalled.
    std::string Reload(const std::string& processId, bool upgradeFails = false) {
        return test::InForkedChild([&] {
            const test::LogCapture log;
            test::EnterRoot(folder.Path());
            std::signal(SIGUSR1, [](int) { ++signalsReceived; });
            if (!processId.empty()) {
                WritePidFile(boost::algorithm::replace_all_copy(processId, "self", std::to_string(getpid())));
            }
            const test::FailingCall noShell(test::Call::System, upgradeFails ? 0 : INT_MAX);
            ReloadSyslogDaemon();
            std::string outcome = std::to_string(signalsReceived) + " signals";
            for (const auto& entry : log.Entries()) {
                outcome += "; " + test::TextOf(entry);
            }
            return outcome;
        });
    }

    // Called where the folder has become the root.
    static void WritePidFile(const std::string& processId) {
        std::filesystem::create_directories("/var/run/tessel");
        std::ofstream(paths::kSyslogPidFile) << processId << '\n';
    }

    test::TemporaryDirectory folder;
};

TEST_F(SyslogReload, SendsTheDaemonUserSignalOne) {
    EXPECT_EQ(Reload("self"), "1 signals");
}

TEST_F(SyslogReload, TakesTheFirstNumberOfThePidFile) {
    for (const std::string text : {"self abc", "self\n\nsecond line", "  self"}) {
        EXPECT_EQ(Reload(text), "1 signals") << text;
    }
    EXPECT_EQ(Reload("self" + std::string(10UL << 20U, ' ')), "1 signals");
}

TEST_F(SyslogReload, LooksForTheNumberAtTheBeginningOnly) {
    EXPECT_EQ(Reload(std::string(10UL << 20U, ' ') + "self"), "0 signals; error unable to read tssyslogd pid.");
}

TEST_F(SyslogReload, WithADirectoryAsPidFileSignalsNobody) {
    folder.Write("var/run/tessel/tssyslogd.pid/file", "");
    EXPECT_EQ(Reload(""), "0 signals; error unable to read tssyslogd pid.");
}

TEST_F(SyslogReload, WithoutAPidFileLogsOnceAndSignalsNobody) {
    EXPECT_EQ(Reload(""), "0 signals; warning unable to open krxsyslogd pid file.");
}

TEST_F(SyslogReload, WithAnUnusablePidFileSignalsNobody) {
    for (const std::string text : {"daemon", "0", "-1", "99999999999"}) {
        EXPECT_EQ(Reload(text), "0 signals; error unable to read tssyslogd pid.") << text;
    }
}

TEST_F(SyslogReload, OfADaemonThatIsGoneSaysSo) {
    EXPECT_EQ(Reload("2147483647"), "0 signals; warning failed to reload tssyslogd: No such process.");
}

TEST_F(SyslogReload, DoesNotLookAtTheStatusOfTheUpgrade) {
    folder.Write("etc/syslog.conf", "");  // and neither shell nor script
    EXPECT_EQ(Reload("self"), "1 signals");
}

TEST_F(SyslogReload, ReportsAnUpgradeThatCouldNotBeCalledAndGoesOn) {
    folder.Write("etc/syslog.conf", "");
    EXPECT_EQ(Reload("2147483647", true),
              "0 signals; error failed to call /usr/lib/tessel/tssyslog/bin/upgrade-syslog.conf.sh; "
              "warning failed to reload tssyslogd: No such process.");
}

TEST_F(SyslogReload, WithoutAConfigurationUpgradesNothing) {
    EXPECT_EQ(Reload("2147483647", true), "0 signals; warning failed to reload tssyslogd: No such process.");
}

}  // namespace
}  // namespace lofter
