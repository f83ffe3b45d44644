#include "tslibs/log.h"

#include <cerrno>
#include <memory>

#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include "support/Channel.h"
#include "support/ForkedChild.h"
#include "support/LogCapture.h"
#include "support/SyslogSocket.h"
#include "support/TemporaryDirectory.h"
#include "tslibs/LogOutput.h"
#include "tslibs/StreamOutput.h"
#include "tslibs/SyslogOutput.h"
#include "tslibs/warning.h"

namespace platform {
namespace {

using lofter::test::Channel;
using lofter::test::ForkedChild;
using lofter::test::LogCapture;
using lofter::test::SyslogSocket;
using lofter::test::TemporaryDirectory;
using Texts = std::vector<std::string>;

using OwnedDictionary = std::unique_ptr<Dictionary, decltype(&Dictionary_Free)>;

OwnedDictionary Configuration(std::initializer_list<std::pair<const char*, const char*>> texts) {
    OwnedDictionary dictionary(Dictionary_Create(), &Dictionary_Free);
    for (const auto& [key, text] : texts) {
        Dict_SetString(dictionary.get(), key, text);
    }
    return dictionary;
}

// An output in the library while this lives.
class Attached {
  public:
    explicit Attached(LogOutput* added) : output(added) { EXPECT_TRUE(Log_AddOutput(added)); }
    ~Attached() { RemoveLogOutput(output); }
    Attached(const Attached&) = delete;
    Attached& operator=(const Attached&) = delete;

  private:
    LogOutput* output;
};

std::string WithoutTime(const std::string& record) {
    return std::string(record).replace(record.find('>') + 1, 16, "");
}

TEST(Log, FormatsMessagesLikePrintf) {
    const LogCapture capture;
    Log_Level(kInfoLevel, "%s and %d%%", "text", 7);
    EXPECT_EQ(capture.Lines(), Texts{"text and 7%"});
}

TEST(Log, KeepsMessagesOfAnyLengthWhole) {
    const LogCapture capture;
    for (const std::size_t length : {1022U, 1023U, 1024U, 1025U, 10'000'000U}) {
        const std::string text(length, 'x');
        Log_Level(kInfoLevel, "%s\n", text.c_str());
        EXPECT_TRUE(capture.Lines().back() == text) << length;
    }
}

TEST(Log, EndsEachMessageInALineEndAndKeepsFurtherOnesOnStandardOutput) {
    Channel channel;
    const Attached output(new StreamOutput(channel.Writer(), "lofter", {kInfoLevel, false, false}));
    for (const auto& [text, shown] : {std::pair{"text", "text\n"},
                                      {"text\n", "text\n"},
                                      {"text\n\n", "text\n\n"},
                                      {"a\n\n\n", "a\n\n\n"},
                                      {"", "\n"},
                                      {"\n", "\n"}}) {
        Log_Level(kInfoLevel, "%s", text);
        EXPECT_EQ(channel.Read(), std::string("info lofter: ") + shown);
    }
    EXPECT_TRUE(channel.IsQuiet());
}

TEST(Log, EndsNoSyslogRecordInALineEnd) {
    const TemporaryDirectory directory;
    SyslogSocket daemon(directory / "log");
    const Attached output(new SyslogOutput(directory / "log", "lofter"));
    for (const auto& [text, sent] : {std::pair{"text\n", "text"}, {"two\nlines\n\n", "two\nlines"}, {"\n\n", ""}}) {
        Log_Level(kInfoLevel, "%s", text);
        EXPECT_EQ(WithoutTime(daemon.Receive()), std::string("<30>lofter: ") + sent);
    }
    LogAlert("one\n\n");
    EXPECT_EQ(WithoutTime(daemon.Receive()), "<25>lofter: one");
}

TEST(Log, SendsWhatIsForSyslogAloneToNoOtherOutput) {
    const TemporaryDirectory directory;
    const std::string path = directory / "log";
    ForkedChild child([&] {
        const LogCapture capture;
        Log_Syslog(kWarningLevel, "nobody hears %s\n", "this");
        SyslogSocket daemon(path);
        EXPECT_TRUE(InitializeSyslog(path.c_str(),
                                     Configuration({{"log.syslogID", "lofter"}, {"log.syslogLevel", "info"}}).get()));
        errno = EXDEV;
        Log_Syslog(kWarningLevel, "%s\n", "the daemon does");
        EXPECT_EQ(errno, EXDEV);
        EXPECT_EQ(WithoutTime(daemon.Receive()), "<28>lofter: the daemon does");
        EXPECT_TRUE(daemon.IsQuiet());
        EXPECT_EQ(capture.Lines(), Texts{});
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(child.Wait(), 0);
}

TEST(Log, LeavesTheErrorNumberAsItWas) {
    const TemporaryDirectory directory;
    const Attached syslogOutput(new SyslogOutput(directory / "no/log", "lofter"));
    const Attached stream(new StreamOutput(-1, "lofter", {}));
    errno = EXDEV;
    Log_Level(kErrorLevel, "short");
    EXPECT_EQ(errno, EXDEV);
    Log_Level(kErrorLevel, "%2000s", "long");
    EXPECT_EQ(errno, EXDEV);
    LogAlert("alert");
    EXPECT_EQ(errno, EXDEV);
}

TEST(Log, DropsMessagesWhileThereIsNoOutput) {
    Log_Level(kErrorLevel, "nobody hears %s", "this");
}

TEST(Log, TakesAnOutputOnce) {
    Channel channel;
    EXPECT_FALSE(Log_AddOutput(nullptr));
    auto* output = new StreamOutput(channel.Writer(), "lofter", {kInfoLevel, false, false});
    EXPECT_TRUE(Log_AddOutput(output));
    EXPECT_FALSE(Log_AddOutput(output));
    Log_Level(kInfoLevel, "once");
    const std::unique_ptr<LogOutput> removed = RemoveLogOutput(output);
    EXPECT_EQ(removed.get(), output);
    EXPECT_EQ(RemoveLogOutput(output), nullptr);
    Log_Level(kInfoLevel, "never");
    EXPECT_EQ(channel.Read(), "info lofter: once\n");
    EXPECT_TRUE(channel.IsQuiet());
}

TEST(Log, SendsSyslogRecordsOfFacilityDaemonUnderTheIdentifier) {
    const TemporaryDirectory directory;
    SyslogSocket daemon(directory / "log");
    const Attached output(new SyslogOutput(directory / "log", "lofter"));
    for (const auto& [level, severity] : {std::pair{0, LOG_ERR},
                                          {110, LOG_ERR},
                                          {111, LOG_WARNING},
                                          {115, LOG_WARNING},
                                          {116, LOG_INFO},
                                          {125, LOG_INFO}}) {
        Log_Level(126, "too fine");
        Log_Level(level, "text of %d\n", level);
        EXPECT_EQ(WithoutTime(daemon.Receive()),
                  "<" + std::to_string(LOG_DAEMON | severity) + ">lofter: text of " + std::to_string(level));
    }
}

TEST(Log, SendsAlertsToSyslogOnly) {
    const TemporaryDirectory directory;
    SyslogSocket daemon(directory / "log");
    Channel channel;
    const Attached output(new SyslogOutput(directory / "log", "lofter", kErrorLevel));
    const Attached stream(new StreamOutput(channel.Writer(), "lofter", {}));
    LogAlert("look at this\n");
    EXPECT_EQ(WithoutTime(daemon.Receive()), "<25>lofter: look at this");
    EXPECT_TRUE(channel.IsQuiet());
}

TEST(Log, IsSetUpForSyslogFromADictionary) {
    const TemporaryDirectory directory;
    const std::string path = directory / "log";
    ForkedChild child([&] {
        SyslogSocket daemon(path);
        EXPECT_TRUE(InitializeSyslog(path.c_str(),
                                     Configuration({{"log.syslogID", "one"}, {"log.syslogLevel", "info"}}).get()));
        Log_Level(kInfoLevel, "first");
        EXPECT_EQ(WithoutTime(daemon.Receive()), "<30>one: first");
        // In place of the first.
        EXPECT_TRUE(InitializeSyslog(path.c_str(),
                                     Configuration({{"log.syslogID", "two"}, {"log.syslogLevel", "warning"}}).get()));
        Log_Level(kInfoLevel, "too fine");
        Log_Level(kWarningLevel, "second");
        EXPECT_EQ(WithoutTime(daemon.Receive()), "<28>two: second");
        EXPECT_TRUE(daemon.IsQuiet());
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(child.Wait(), 0);
}

TEST(Log, RefusesASyslogConfigurationWithoutIdentifierOrWithAnUnknownLevel) {
    EXPECT_FALSE(Log_InitWithSyslogInt(Configuration({{"log.syslogLevel", "info"}}).get()));
    EXPECT_FALSE(Log_InitWithSyslogInt(Configuration({{"log.syslogID", "lofter"}, {"log.syslogLevel", "loud"}}).get()));
}

TEST(Log, RefusesAStandardOutputOfAnUnknownLevel) {
    EXPECT_EQ(Log_NewStdioOutput(Configuration({{"log.stdoutLevel", "loud"}}).get()), nullptr);
}

TEST(Log, WritesToStandardOutputUnderTheIdentifierThatSyslogWasGiven) {
    Channel channel;
    ForkedChild child([&] {
        ::dup2(channel.Writer(), STDOUT_FILENO);
        Log_InitWithSyslogInt(Configuration({{"log.syslogID", "starter"}}).get());
        const OwnedDictionary configuration = Configuration({{"log.stdoutLevel", "info"}});
        Dict_SetBool(configuration.get(), "log.useTimeStamps.stdio", true);
        Dict_SetBool(configuration.get(), "log.useMilliseconds.stdio", true);
        Log_AddOutput(Log_NewStdioOutput(configuration.get()));
        Log_Level(kInfoLevel, "text\n");
        Dictionary_Clear(configuration.get());
        Log_AddOutput(Log_NewStdioOutput(configuration.get()));
        Log_Level(kWarningLevel, "text\n");
        return 0;
    });
    EXPECT_EQ(child.Wait(), 0);
    const std::string stamped = channel.Read();
    EXPECT_EQ(stamped.substr(23), " info starter: text\n");
    EXPECT_EQ(stamped[19], '.');
    EXPECT_EQ(channel.Read().substr(23), " warning starter: text\n");
    EXPECT_EQ(channel.Read(), "warning starter: text\n");
}

TEST(Log, CopiesToStandardErrorWhatTheLevelAdmits) {
    Channel channel;
    ForkedChild child([&] {
        ::dup2(channel.Writer(), STDERR_FILENO);
        Log_Level(kErrorLevel, "before");
        Log_SetStderrLevel(kWarningLevel);
        Log_Level(kInfoLevel, "too fine");
        Log_Level(kWarningLevel, "copied");
        Log_SetStderrLevel(-1);
        Log_Level(kErrorLevel, "after");
        return 0;
    });
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_TRUE(channel.ReadToEnd().ends_with(": copied\n"));
    EXPECT_EQ(channel.ReadToEnd(), "");
}

TEST(Warning, IsOneLineAtTheLevelOfWarningsOnEveryOutput) {
    const LogCapture one;
    const LogCapture other;
    Warning("Failed opening log file %s", "x");
    EXPECT_EQ(one.Entries(), (std::vector<LogCapture::Entry>{{kWarningLevel, "Failed opening log file x"}}));
    EXPECT_EQ(other.Entries(), one.Entries());
}

TEST(Panic, LogsItsMessageAsAnErrorThenTheProductAndAborts) {
    Channel channel;
    ForkedChild child([&] {
        Log_AddOutput(new StreamOutput(channel.Writer(), "lofter", {kErrorLevel, false, false}));
        Log_SetProductInfo("Host", "1.2", "345", "debug");
        Panic("VERIFY %s:%d\n", "here", 86);
        return 0;
    });
    EXPECT_EQ(child.Wait(), -SIGABRT);
    EXPECT_EQ(channel.Read(), "error lofter: VERIFY here:86\n");
    EXPECT_EQ(channel.Read(), "error lofter: panic of Host 1.2 345 (debug)\n");
}

TEST(Panic, SaysNothingOfAProductThatIsUnknown) {
    Channel channel;
    ForkedChild child([&] {
        Log_AddOutput(new StreamOutput(channel.Writer(), "lofter", {kErrorLevel, false, false}));
        Panic("lost");
        return 0;
    });
    EXPECT_EQ(child.Wait(), -SIGABRT);
    EXPECT_EQ(channel.ReadToEnd(), "error lofter: lost\n");
}

}  // namespace
}  // namespace platform
