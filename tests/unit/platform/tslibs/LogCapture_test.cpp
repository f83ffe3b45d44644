#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include "base/Logging.h"
#include "tslibs/warning.h"

namespace lofter::test {
namespace {

using Texts = std::vector<std::string>;

TEST(LogCapture, RecordsLevelAndTextOfEveryMessage) {
    const LogCapture capture;
    Log_Level(kInfo, "%s of %d\n", "one", 2);
    Log_Level(kWarning, "second");
    Log_Level(150, "fine\n");
    EXPECT_EQ(capture.Entries(),
              (std::vector<LogCapture::Entry>{{kInfo, "one of 2"}, {kWarning, "second"}, {150, "fine"}}));
    EXPECT_EQ(capture.Lines(), (Texts{"one of 2", "second", "fine"}));
    EXPECT_EQ(capture.Lines(kWarning), Texts{"second"});
}

TEST(LogCapture, RecordsOnlyWhileItLives) {
    Log_Level(kInfo, "before");
    LogCapture outer;
    {
        const LogCapture inner;
        Warning("within");
        EXPECT_EQ(inner.Lines(kWarning), Texts{"within"});
    }
    Log_Level(kInfo, "after");
    EXPECT_EQ(outer.Lines(), (Texts{"within", "after"}));
    outer.Clear();
    EXPECT_EQ(outer.Lines(), Texts{});
}

}  // namespace
}  // namespace lofter::test
