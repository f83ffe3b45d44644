#include "ProfilingLog.h"

#include <deque>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "base/Logging.h"
#include "base/Settings.h"
#include "plugins/Plugin.h"
#include "support/ChildOutcome.h"
#include "support/LogCapture.h"
#include "support/Plugins.h"
#include "support/TemporaryDirectory.h"

namespace lofter {
namespace {

namespace fs = std::filesystem;
using Entries = std::vector<test::LogCapture::Entry>;

constexpr time_t kSecondOfJanuary2024 = 1704178989;  // 07:03:09 UTC

class TimedPlugin : public Plugin {
  public:
    TimedPlugin(const std::string& pluginName, const timeval& start, const timeval& end)
        : Plugin(PluginDescription(PluginKind::Debug, pluginName), test::NoActivator::Instance()) {
        SetStartTime(start);
        SetEndTime(end);
    }
    void StartPlugin() override {}
    bool HasApplyHostProfile() const override { return false; }
    void ApplyHostProfile() override {}
};

class ProfilingLog : public testing::Test {
  protected:
    ProfilingLog() {
        settings.randomSeed = -5;
        times.start = {kSecondOfJanuary2024, 5};
        times.end = {kSecondOfJanuary2024 + 60, 999'999};
        times.uptime = 12;
    }

    std::string BootLog() const {
        std::ostringstream output;
        WriteBootSection(output, times, plugins, settings);
        return output.str();
    }

    std::vector<std::string> Files() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(folder.Path())) {
            names.push_back(entry.path().filename());
        }
        return names;
    }

    test::LogCapture log;
    test::TemporaryDirectory folder;
    const std::string path = folder / "sysboot.log";
    Settings settings;
    RunTimes times;
    TimedPlugin net{"net", {kSecondOfJanuary2024 + 1, 0}, {kSecondOfJanuary2024 + 2, 250'000}};
    TimedPlugin skipped{"100% \"odd\"", {kSecondOfJanuary2024 + 3, 1}, {0, 0}};
    std::deque<Plugin*> plugins;
};

constexpr char kConfiguration[] =
    "=== Lofter configuration info ===\n"
    " Start: 2024-01-02 07:03:09.000005\n"
    " End: 2024-01-02 07:04:09.999999\n"
    " Verbose: 0\n"
    " Parallel: 0\n"
    " Randomize: 0\n"
    " Interactive Mode: 0\n"
    " Random Seed: -5\n";

constexpr char kDaemonConfiguration[] =
    "=== Daemon configuration info ===\n"
    " Start Daemon: 2024-01-02 07:03:09.000005\n"
    " End Daemon: 2024-01-02 07:04:09.999999\n"
    " Verbose: 0\n"
    " Parallel: 0\n"
    " Randomize: 0\n"
    " Interactive Mode: 0\n"
    " Random Seed: -5\n";

constexpr char kNetTimes[] = "[2024-01-02 07:03:10.000000 - 2024-01-02 07:03:11.250000]";
constexpr char kSkippedTimes[] = "[2024-01-02 07:03:12.000001 - 1970-01-01 00:00:00.000000]";

TEST(FormatTime, FillsEveryPartWithZeros) {
    EXPECT_EQ(FormatTime({kSecondOfJanuary2024, 5}), "2024-01-02 07:03:09.000005");
    EXPECT_EQ(FormatTime({0, 0}), "1970-01-01 00:00:00.000000");
    EXPECT_EQ(FormatTime({-61'000'000'000, 999'999}), "0036-12-26 11:33:20.999999");
}

TEST(FormatTime, IsInUtcWhateverTheTimeZone) {
    EXPECT_EQ(test::InForkedChild([] {
                  setenv("TZ", "XYZ-5:30", 1);
                  tzset();
                  return FormatTime({kSecondOfJanuary2024, 5});
              }),
              "2024-01-02 07:03:09.000005");
}

TEST_F(ProfilingLog, OfABootWithoutPluginsHasTheKernelLineAndTheConfigurationOnly) {
    EXPECT_EQ(BootLog(), std::string("Krxkernel Initialization Time: 12000000\n") + kConfiguration);
}

TEST_F(ProfilingLog, ListsThePluginsInTheirOrderASkippedOneToo) {
    plugins = {&skipped, &net};
    EXPECT_EQ(BootLog(), std::string("Krxkernel Initialization Time: 12000000\n") + kSkippedTimes +
                             " sysboot: 100% \"odd\"\n" + kNetTimes + " sysboot: net\n" + kConfiguration);
}

// Keeps what had been written at each flush.
class FlushRecorder : public std::stringbuf {
  public:
    std::vector<std::string> flushed;

  private:
    int sync() override {
        flushed.push_back(str());
        return 0;
    }
};

TEST_F(ProfilingLog, FlushesEveryPluginsLineWhenItIsWritten) {
    plugins = {&skipped, &net};
    FlushRecorder recorder;
    std::ostream output(&recorder);
    WriteBootSection(output, times, plugins, settings);
    ASSERT_EQ(recorder.flushed.size(), 2U);
    EXPECT_TRUE(recorder.flushed[0].ends_with("] sysboot: 100% \"odd\"\n")) << recorder.flushed[0];
    EXPECT_TRUE(recorder.flushed[1].ends_with("] sysboot: net\n")) << recorder.flushed[1];
}

TEST_F(ProfilingLog, ShowsEverySettingAsItStands) {
    for (bool* flag : {&settings.verbose, &settings.parallel, &settings.randomize, &settings.interactive}) {
        settings.verbose = settings.parallel = settings.randomize = settings.interactive = false;
        *flag = true;
        std::ostringstream expected;
        expected << " Verbose: " << settings.verbose << "\n Parallel: " << settings.parallel
                 << "\n Randomize: " << settings.randomize << "\n Interactive Mode: " << settings.interactive << "\n";
        EXPECT_NE(BootLog().find(expected.str()), std::string::npos) << BootLog();
    }
    settings.randomSeed = 9'223'372'036'854'775'807;
    EXPECT_TRUE(BootLog().ends_with(" Random Seed: 9223372036854775807\n"));
}

TEST_F(ProfilingLog, OfALongUptimeStaysANumberOfMicroseconds) {
    times.uptime = 4'000'000'000;
    EXPECT_TRUE(BootLog().starts_with("Krxkernel Initialization Time: 4000000000000000\n"));
}

TEST_F(ProfilingLog, OfADaemonRunHasTheSameShapeWithoutTheKernelLine) {
    plugins = {&net};
    std::ostringstream output;
    WriteDaemonSection(output, times, plugins, settings);
    EXPECT_EQ(output.str(), std::string(kNetTimes) + " daemon: net\n" + kDaemonConfiguration);
}

TEST_F(ProfilingLog, IsReplacedByABoot) {
    folder.Write("sysboot.log", "old\n");
    ASSERT_EQ(chmod(path.c_str(), 0640), 0);
    LogBootProfile(path.c_str(), times, plugins, settings);
    EXPECT_EQ(folder.Read("sysboot.log"), BootLog());
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);
    EXPECT_EQ(log.Entries(), Entries{});
}

TEST_F(ProfilingLog, HoldsOneBootSectionAndTwoDaemonSectionsAfterTwoDaemonRuns) {
    plugins = {&net};
    LogBootProfile(path.c_str(), times, plugins, settings);
    LogDaemonProfile(path.c_str(), times, plugins, settings);
    LogDaemonProfile(path.c_str(), times, {}, settings);
    EXPECT_EQ(folder.Read("sysboot.log"),
              BootLog() + kNetTimes + " daemon: net\n" + kDaemonConfiguration + kDaemonConfiguration);
    EXPECT_EQ(log.Entries(), Entries{});
    EXPECT_EQ(Files().size(), 1U);
}

TEST_F(ProfilingLog, ThatCannotBeOpenedIsAnError) {
    const std::string missing = folder / "missing/sysboot.log";
    const std::string underFile = folder.Write("file", "") + "/sysboot.log";
    LogBootProfile(missing.c_str(), times, plugins, settings);
    LogBootProfile(underFile.c_str(), times, plugins, settings);
    EXPECT_EQ(log.Entries(),
              (Entries{{kError, "unable to open profiling log (" + missing + "): No such file or directory."},
                       {kError, "unable to open profiling log (" + underFile + "): Not a directory."}}));
}

TEST_F(ProfilingLog, ThatCannotBeReopenedIsAnError) {
    const std::string missing = folder / "missing/sysboot.log";
    LogDaemonProfile(missing.c_str(), times, plugins, settings);
    LogDaemonProfile(path.c_str(), times, plugins, settings);
    EXPECT_EQ(log.Entries(),
              (Entries{{kError, "unable to reopen profiling log (" + missing + "): No such file or directory."},
                       {kError, "unable to reopen profiling log (" + path + "): No such file or directory."}}));
    EXPECT_TRUE(Files().empty());
}

// Runs in a child for which the disk is full after so many bytes, and says what was logged.
template <typename Write>
std::string OnAFullDisk(unsigned long bytes, const Write& write) {
    return test::InForkedChild([&] {
        const test::LogCapture capture;
        test::LimitFileSize(bytes);
        write();
        const auto entries = capture.Entries();
        return entries.size() == 1 ? test::TextOf(entries[0]) : std::to_string(entries.size()) + " messages";
    });
}

TEST_F(ProfilingLog, OnAFullDiskIsAWarningAndKeepsTheOldLog) {
    folder.Write("sysboot.log", "old\n");
    for (const std::deque<Plugin*>& list : {std::deque<Plugin*>{}, std::deque<Plugin*>{&net, &skipped}}) {
        for (const unsigned long bytes : {0UL, 30UL, 200UL}) {
            EXPECT_EQ(OnAFullDisk(bytes, [&] { LogBootProfile(path.c_str(), times, list, settings); }),
                      "warning unable to log profiling information: File too large.");
        }
        EXPECT_EQ(OnAFullDisk(100, [&] { LogDaemonProfile(path.c_str(), times, list, settings); }),
                  "warning unable to log daemon profiling information: File too large.");
    }
    EXPECT_EQ(folder.Read("sysboot.log"), "old\n");
    EXPECT_EQ(Files().size(), 1U);
}

TEST_F(ProfilingLog, OnADiskTooFullForTheOldLogIsAnErrorAndKeepsIt) {
    folder.Write("sysboot.log", std::string(50'000, 'x'));
    EXPECT_EQ(OnAFullDisk(40'000, [&] { LogDaemonProfile(path.c_str(), times, plugins, settings); }),
              "error unable to reopen profiling log (" + path + "): File too large.");
    EXPECT_EQ(folder.Read("sysboot.log").size(), 50'000U);
    EXPECT_EQ(Files().size(), 1U);
}

TEST_F(ProfilingLog, ThatCannotBePutInPlaceIsAWarning) {
    fs::create_directory(path);
    LogBootProfile(path.c_str(), times, plugins, settings);
    ASSERT_EQ(log.Entries().size(), 1U);
    EXPECT_EQ(log.Entries()[0].level, kWarning);
    const std::string text = log.Lines()[0];
    EXPECT_TRUE(text.starts_with("unable to log profiling information: unable to rename '" + path + ".")) << text;
    EXPECT_TRUE(text.ends_with("' to '" + path + "': Is a directory.")) << text;
    EXPECT_EQ(Files().size(), 1U);
}

}  // namespace
}  // namespace lofter
