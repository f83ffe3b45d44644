#include "tslibs/TimeStamp.h"

#include <filesystem>

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>

#include "support/ChildOutcome.h"
#include "support/ForkedChild.h"
#include "support/TemporaryDirectory.h"

namespace platform {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

TimeStamp::Clock::time_point At(long long sinceEpoch, int thousandths = 0) {
    return TimeStamp::Clock::time_point(seconds(sinceEpoch) + milliseconds(thousandths));
}

TEST(TimeStamp, ShowsTheDateAndTheTimeInUniversalTime) {
    EXPECT_EQ(TimeStamp::Iso(At(1795225148, 123), true).Text(), "2026-11-21 01:39:08.123");
    EXPECT_EQ(TimeStamp::Iso(At(1795225148, 999), false).Text(), "2026-11-21 01:39:08");
    EXPECT_EQ(TimeStamp::Iso(At(0, 7), true).Text(), "1970-01-01 00:00:00.007");
    EXPECT_EQ(TimeStamp::Iso(At(951782400), false).Text(), "2000-02-29 00:00:00");
    EXPECT_EQ(TimeStamp::Iso(At(-1), false).Text(), "1969-12-31 23:59:59");
}

TEST(TimeStamp, PadsTheDayOfSyslogRecordsWithABlank) {
    EXPECT_EQ(TimeStamp::Syslog(At(1793491199)).Text(), "Oct 31 23:59:59");
    EXPECT_EQ(TimeStamp::Syslog(At(1793491200)).Text(), "Nov  1 00:00:00");
}

TEST(TimeStamp, KnowsHowFarTheLocalZoneIsFromUniversalTime) {
    lofter::test::ForkedChild child([] {
        ::setenv("TZ", "XYZ-5:30", 1);
        ::tzset();
        return LocalOffset(At(1795225148)) == seconds(19800) ? 0 : 1;
    });
    EXPECT_EQ(child.Wait(), 0);
}

TEST(TimeStamp, DoesNotWaitForAZoneFileThatIsAPipe) {
    const lofter::test::TemporaryDirectory root;
    std::filesystem::create_directory(root / "etc");
    ASSERT_EQ(::mkfifo((root / "etc/localtime").c_str(), 0600), 0);
    lofter::test::ForkedChild child([&] {
        ::unsetenv("TZ");
        lofter::test::EnterRoot(root.Path());
        return LocalOffset(At(1795225148)) == seconds(0) ? 0 : 1;
    });
    EXPECT_EQ(child.Wait(), 0);
}

}  // namespace
}  // namespace platform
