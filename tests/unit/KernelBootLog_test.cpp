#include "KernelBootLog.h"

#include <gtest/gtest.h>

#include "support/ChildOutcome.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

namespace lofter {
namespace {

// Writes one record on a host that consists of the folder, and says what went to the system log instead.
std::string Write(const test::TemporaryDirectory& host, const std::string& text) {
    return test::InForkedChild([&] {
        const test::LogCapture log;
        test::EnterRoot(host.Path());
        KernelBootLog("%s is %d%%.", text.c_str(), 100);
        const auto lines = log.Lines();
        return lines.empty() ? "" : lines.at(0);
    });
}

TEST(KernelBootLog, WritesTheFormattedTextAsOneRecord) {
    const test::TemporaryDirectory host;
    host.Write("dev/kmsg", "");
    EXPECT_EQ(Write(host, "net"), "");
    EXPECT_EQ(host.Read("dev/kmsg"), "<6>lofter: net is 100%.");
}

TEST(KernelBootLog, NeverTakesTextFromOutsideForAFormat) {
    const test::TemporaryDirectory host;
    host.Write("dev/kmsg", "");
    EXPECT_EQ(Write(host, "%s%n\"\xc3\xa9"), "");
    EXPECT_EQ(host.Read("dev/kmsg"), "<6>lofter: %s%n\"\xc3\xa9 is 100%.");
}

TEST(KernelBootLog, ReportsAKernelThatTakesNoRecordInTheSystemLog) {
    const test::TemporaryDirectory host;
    EXPECT_EQ(Write(host, "net"), "Exception occurred while logging msg: /dev/kmsg: No such file or directory");
    host.Write("dev/kmsg/file", "");
    EXPECT_EQ(Write(host, "net"), "Exception occurred while logging msg: /dev/kmsg: Is a directory");
}

}  // namespace
}  // namespace lofter
