#include "base/KernelBootLog.h"

#include <filesystem>

#include <gtest/gtest.h>

#include "base/Logging.h"
#include "support/ChildOutcome.h"
#include "support/LogCapture.h"
#include "support/SyslogSocket.h"
#include "support/TemporaryDirectory.h"

namespace lofter {
namespace {

// Writes one record on a host that consists of the folder, and says what the program's own log got.
std::string Write(const test::TemporaryDirectory& host, const std::string& text) {
    return test::InForkedChild([&] {
        test::EnterRoot(host.Path());
        InitializeLogging("lofter");
        const test::LogCapture log;
        KernelBootLog("%s is %d%%.", text.c_str(), 100);
        const auto lines = log.Lines();
        return lines.empty() ? "" : lines.at(0);
    });
}

TEST(KernelBootLog, WritesTheFormattedTextAsOneRecord) {
    const test::TemporaryDirectory host;
    host.Write("dev/kmsg", "");
    EXPECT_EQ(Write(host, "net"), "");
    EXPECT_EQ(host.Read("dev/kmsg"), "<6>lofter: net is 100%.\n");
}

TEST(KernelBootLog, NeverTakesTextFromOutsideForAFormat) {
    const test::TemporaryDirectory host;
    host.Write("dev/kmsg", "");
    EXPECT_EQ(Write(host, "%s%n\"\xc3\xa9"), "");
    EXPECT_EQ(host.Read("dev/kmsg"), "<6>lofter: %s%n\"\xc3\xa9 is 100%.\n");
}

TEST(KernelBootLog, ReportsAKernelThatTakesNoRecordToTheSyslogDaemonOnly) {
    const test::TemporaryDirectory host;
    std::filesystem::create_directory(host / "dev");
    test::SyslogSocket daemon(host / "dev/log");
    for (const std::string reason : {"No such file or directory", "Is a directory"}) {
        EXPECT_EQ(Write(host, "net"), "");
        const std::string record = daemon.Receive();
        EXPECT_TRUE(record.starts_with("<28>")) << record;
        EXPECT_TRUE(record.ends_with(" lofter: Exception occurred while logging msg: /dev/kmsg: " + reason)) << record;
        EXPECT_TRUE(daemon.IsQuiet());
        host.Write("dev/kmsg/file", "");
    }
}

TEST(KernelBootLog, DoesWithoutASyslogDaemonToo) {
    const test::TemporaryDirectory host;
    EXPECT_EQ(Write(host, "net"), "");
}

}  // namespace
}  // namespace lofter
