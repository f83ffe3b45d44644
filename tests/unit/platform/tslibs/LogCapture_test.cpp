#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include "tslibs/log.h"
#include "tslibs/warning.h"

namespace lofter::test {
namespace {

using Texts = std::vector<std::string>;

TEST(LogCapture, RecordsLevelAndTextOfEveryMessage) {
    const LogCapture capture;
    Log_Level(125, "%s of %d\n", "one", 2);
    Log_Level(115, "second");
    Log_Level(150, "fine\n");
    EXPECT_EQ(capture.Entries(), (std::vector<LogCapture::Entry>{{125, "one of 2"}, {115, "second"}, {150, "fine"}}));
    EXPECT_EQ(capture.Lines(), (Texts{"one of 2", "second", "fine"}));
    EXPECT_EQ(capture.Lines(115), Texts{"second"});
}

TEST(LogCapture, RecordsOnlyWhileItLives) {
    Log_Level(125, "before");
    LogCapture outer;
    {
        const LogCapture inner;
        Warning("within");
        EXPECT_EQ(inner.Lines(115), Texts{"within"});
    }
    Log_Level(125, "after");
    EXPECT_EQ(outer.Lines(), (Texts{"within", "after"}));
    outer.Clear();
    EXPECT_EQ(outer.Lines(), Texts{});
}

}  // namespace
}  // namespace lofter::test
