#include "analysis/Gains.h"

#include <algorithm>
#include <random>

#include <gtest/gtest.h>

#include "support/RandomBoot.h"
#include "support/TestBoot.h"

namespace lofter::analyze {
namespace {

using test::BootOf;

std::string Ranked(const Boot& boot, std::size_t threads) {
    ForecastModel model = MeasuredModel(boot);
    model.threads = threads;
    std::string text;
    for (const Gain& gain : RankGains(boot, model, MakeForecast(boot, model).makespan)) {
        text += (text.empty() ? "" : " ") + boot.plugins[gain.plugin].Name() + ':' + std::to_string(gain.gain);
    }
    return text;
}

std::string MoreThreads(const Boot& boot, std::size_t threads) {
    ForecastModel model = MeasuredModel(boot);
    model.threads = threads;
    std::string text;
    for (const ThreadsForecast& forecast : ForecastMoreThreads(boot, model, MakeForecast(boot, model).makespan)) {
        text += (text.empty() ? "" : " ") + std::to_string(forecast.threads) + ':' + std::to_string(forecast.makespan);
    }
    return text;
}

TEST(Gains, AreWhatTheBootWouldEndSooner) {
    const Boot boot = BootOf(
        "hw: provides disk ran 5 15\n"
        "net: requires disk ran 15 45\n"
        "fs: requires disk ran 45 65\n"
        "asked: began 65\n"
        "gone: ran 0 9 out\n"
        "loop: requires l provides l");
    EXPECT_EQ(Ranked(boot, 1), "net:30 fs:20 hw:10 asked:0");
    EXPECT_EQ(Ranked(boot, 3), "hw:10 net:10 asked:0 fs:0");
}

TEST(Gains, OfRandomBootsAreThoseOfAForecastEach) {
    std::mt19937 random(18);
    for (int round = 0; round < 500; ++round) {
        const std::string lines = test::DrawBoot({.plugins = 9, .barriers = 6, .hasTimes = true}, random);
        const Boot boot = BootOf(lines);
        ForecastModel model = MeasuredModel(boot);
        model.threads = 1 + random() % 3;
        const Microseconds makespan = MakeForecast(boot, model).makespan;
        const std::vector<Gain> gains = RankGains(boot, model, makespan);
        ASSERT_EQ(gains.size(), boot.plugins.size());
        for (const Gain& gain : gains) {
            ForecastModel changed = model;
            changed.durations[gain.plugin] = 0;
            ASSERT_EQ(gain.gain, makespan - MakeForecast(boot, changed).makespan) << lines;
        }
        ASSERT_TRUE(std::is_sorted(gains.begin(), gains.end(),
                                   [](const Gain& left, const Gain& right) { return left.gain > right.gain; }));
    }
}

TEST(Gains, OfMoreThanAThousandPluginsAreThoseOfTheLeastSlack) {
    std::string lines;
    for (int number = 0; number < 1'001; ++number) {
        lines += "p" + std::to_string(number) + ": ran 0 " + std::to_string(number) + '\n';
    }
    const Boot boot = BootOf(lines);
    ForecastModel model = MeasuredModel(boot);
    model.threads = 2'000;
    const std::vector<Gain> gains = RankGains(boot, model, MakeForecast(boot, model).makespan);
    ASSERT_EQ(gains.size(), 100U);
    EXPECT_EQ(boot.plugins[gains.front().plugin].Name(), "p1000");
    EXPECT_EQ(gains.front().gain, 1);
    EXPECT_EQ(gains.back().gain, 0);
    EXPECT_TRUE(std::all_of(gains.begin(), gains.end(), [](const Gain& gain) { return gain.plugin > 900; }));
}

TEST(MoreThreads, AreAtMostSixteenTimesAsMany) {
    std::string lines;
    for (int number = 0; number < 100; ++number) {
        lines += "p" + std::to_string(number) + ": ran 0 100\n";
    }
    EXPECT_EQ(MoreThreads(BootOf(lines), 1), "2:5000 4:2500 8:1300 16:700");
}

TEST(MoreThreads, AreTwiceAsManyUntilTheyBringNothing) {
    const Boot boot = BootOf(
        "a: ran 0 10\n"
        "b: ran 10 20\n"
        "c: ran 20 30\n"
        "d: ran 30 40\n"
        "e: ran 40 50\n"
        "f: ran 50 60");
    EXPECT_EQ(MoreThreads(boot, 1), "2:30 4:20 6:10");
    EXPECT_EQ(MoreThreads(boot, 3), "6:10");
    EXPECT_EQ(MoreThreads(boot, 6), "");
    EXPECT_EQ(MoreThreads(BootOf("a: provides x ran 0 10\nb: requires x ran 10 20"), 1), "");
}

}  // namespace
}  // namespace lofter::analyze
