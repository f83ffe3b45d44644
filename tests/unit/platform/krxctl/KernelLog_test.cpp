#include "krxctl/KernelLog.h"

#include <stdexcept>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include "krxctl/Sysinfo.h"
#include "posix/Descriptor.h"
#include "support/FailureOf.h"
#include "support/OpenDescriptors.h"
#include "support/TemporaryDirectory.h"

namespace platform {
namespace {

using lofter::test::FailureOf;
using lofter::test::OpenDescriptors;
using lofter::test::TemporaryDirectory;

TEST(KernelLog, AppendsEachTextAsARecordOfLofterThatIsComplete) {
    const TemporaryDirectory directory;
    const std::string log = directory.Write("kmsg", "before|");
    WriteKernelLog(log.c_str(), {"one", "|", "two 100%s\n"});
    EXPECT_EQ(directory.Read("kmsg"), "before|<6>lofter: one\n<6>lofter: |\n<6>lofter: two 100%s\n");
}

TEST(KernelLog, CutsTextsThatAreTooLongForARecordAtTheEndOfASymbol) {
    const TemporaryDirectory directory;
    const std::string log = directory.Write("kmsg", "");
    std::string text;
    while (text.size() < 3000) {
        text += "\xe2\x82\xac";
    }
    WriteKernelLog(log.c_str(), {text});
    const std::string record = directory.Read("kmsg");
    EXPECT_GT(record.size(), 900U);
    EXPECT_LE(record.size(), 960U);
    EXPECT_TRUE(record.ends_with("\xe2\x82\xac\n"));
}

TEST(KernelLog, GetsControlCharactersSpelledOut) {
    const TemporaryDirectory directory;
    const std::string log = directory.Write("kmsg", "");
    WriteKernelLog(log.c_str(), {"a\x1b[2J\tb\n", std::string(1000, '\r')});
    const std::string records = directory.Read("kmsg");
    EXPECT_TRUE(records.starts_with("<6>lofter: a\\x1b[2J\tb\n<6>lofter: \\x0d\\x0d")) << records;
    EXPECT_TRUE(records.ends_with("\\x0d\n")) << records;
    EXPECT_LE(records.substr(records.find('\n') + 1).size(), 960U);
}

TEST(KernelLog, IsNeverCreated) {
    const TemporaryDirectory directory;
    const std::string log = directory / "kmsg";
    EXPECT_EQ(FailureOf([&] { WriteKernelLog(log.c_str(), {"text"}); }), log + ": No such file or directory");
    EXPECT_FALSE(std::filesystem::exists(log));
}

TEST(KernelLog, IsNoPipe) {
    const TemporaryDirectory directory;
    const std::string log = directory / "kmsg";
    ASSERT_EQ(::mkfifo(log.c_str(), 0600), 0);
    EXPECT_EQ(FailureOf([&] { WriteKernelLog(log.c_str(), {"text"}); }), log + ": No such device or address");
    const posix::Descriptor reader(::open(log.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    EXPECT_EQ(FailureOf([&] { WriteKernelLog(log.c_str(), {"text"}); }), log + ": No such device or address");
}

TEST(KernelLog, DoesNotWaitForATerminalThatWasStopped) {
    int ends[2];
    ASSERT_EQ(::openpty(&ends[0], &ends[1], nullptr, nullptr, nullptr), 0);
    const posix::Descriptor master(ends[0]);
    const posix::Descriptor slave(ends[1]);
    ASSERT_EQ(::tcflow(slave.Get(), TCOOFF), 0);
    const std::string log = ::ttyname(slave.Get());
    EXPECT_EQ(FailureOf([&] { WriteKernelLog(log.c_str(), {"text"}); }), log + ": Resource temporarily unavailable");
}

TEST(KernelLog, ReportsARecordThatIsNotTaken) {
    const std::set<int> before = OpenDescriptors();
    EXPECT_EQ(FailureOf([] { WriteKernelLog("/dev/full", {"text"}); }), "/dev/full: No space left on device");
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST(Sysinfo, KnowsTheSyslogNodeOnly) {
    EXPECT_EQ(FailureOf([] { KrxCtl::Util::Sysinfo("syslog"); }), "");
    EXPECT_EQ(FailureOf([] { KrxCtl::Util::Sysinfo("other"); }), "unknown system information node: other");
}

}  // namespace
}  // namespace platform
