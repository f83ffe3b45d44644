#include "base/Settings.h"

#include <ctime>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/ChildOutcome.h"

namespace lofter {
namespace {

TEST(Settings, AreOneRecordForAllThreads) {
    std::vector<Settings*> seen(4);
    {
        std::vector<std::jthread> threads;
        for (Settings*& record : seen) {
            threads.emplace_back([&record] { record = &Settings::Instance(); });
        }
    }
    for (const Settings* record : seen) {
        EXPECT_EQ(record, &Settings::Instance());
    }
}

TEST(Settings, HaveDefaultsThatBootSeriallyAndSilently) {
    const Settings settings;
    EXPECT_FALSE(settings.verbose || settings.parallel || settings.randomize || settings.interactive);
    EXPECT_FALSE(settings.trace || settings.invoke || settings.daemonWait);
    EXPECT_EQ(settings.threadCount, 1U);
    EXPECT_EQ(settings.daemonWaitTimeout, 40U);
    EXPECT_EQ(settings.pluginDirectory + settings.method, "");
    EXPECT_TRUE(settings.disabledPlugins.empty());
    EXPECT_TRUE(settings.interactiveModeRequirements.empty());
    EXPECT_GT(settings.randomSeed, 0);
    EXPECT_LE(settings.randomSeed, static_cast<std::int64_t>(std::time(nullptr)));
}

TEST(Settings, AreThereInAForkedChild) {
    Settings& settings = Settings::Instance();
    EXPECT_EQ(test::InForkedChild([&] { return std::to_string(Settings::Instance().threadCount); }),
              std::to_string(settings.threadCount));
}

}  // namespace
}  // namespace lofter
