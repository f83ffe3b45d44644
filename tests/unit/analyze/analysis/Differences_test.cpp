#include "analysis/Differences.h"

#include <gtest/gtest.h>

namespace lofter::analyze {
namespace {

// "net 10->20 slower, web 5->- gone"
std::string Shown(const Differences& differences) {
    const auto time = [](const std::optional<Microseconds>& duration) {
        return duration ? std::to_string(*duration) : "-";
    };
    const auto shown = [&](const std::string& name, const Difference& difference) {
        constexpr const char* kChanges[] = {"slower", "faster", "new", "gone", "same"};
        return name + ' ' + time(difference.before) + "->" + time(difference.after) + ' ' +
               kChanges[static_cast<int>(difference.change)];
    };
    std::string text = shown("boot", differences.boot);
    for (const Differences::Plugin& plugin : differences.plugins) {
        text += ", " + shown(plugin.name, plugin.difference);
    }
    return text;
}

BootDurations Durations(Microseconds length, std::vector<BootDurations::Plugin> plugins) {
    return {std::move(plugins), length};
}

TEST(Differences, EachKindOfChangeIsTold) {
    const Differences differences =
        Compare({Durations(100'000, {{"a", 50'000}, {"b", 50'000}, {"gone", 5}, {"same", 7}})},
                {Durations(100'000, {{"a", 30'000}, {"b", 70'000}, {"new", 6}, {"same", 7}})}, {});
    EXPECT_EQ(Shown(differences),
              "boot 100000->100000 same, b 50000->70000 slower, a 50000->30000 faster, new -->6 new, gone 5->- gone, "
              "same 7->7 same");
    EXPECT_TRUE(differences.HasRegressed());
}

TEST(Differences, SlowerMeansAtLeastByBothThresholds) {
    const auto change = [](Microseconds before, Microseconds after, const Threshold& threshold) {
        return Compare({Durations(before, {})}, {Durations(after, {})}, threshold).boot.change;
    };
    EXPECT_EQ(change(50'000, 60'000, {20, 10'000}), Change::Slower);
    EXPECT_EQ(change(50'000, 59'999, {20, 10'000}), Change::Same);
    EXPECT_EQ(change(50'001, 60'001, {20, 10'000}), Change::Same);
    EXPECT_EQ(change(10'000, 19'999, {20, 10'000}), Change::Same);
    EXPECT_EQ(change(0, 10'000, {20, 10'000}), Change::Slower);
    EXPECT_EQ(change(50'000, 40'000, {20, 10'000}), Change::Faster);
    EXPECT_EQ(change(50'000, 50'000, {0, 0}), Change::Same);
    EXPECT_EQ(change(50'000, 50'001, {0, 0}), Change::Slower);
    EXPECT_EQ(change(50'000, 49'999, {0, 0}), Change::Faster);
}

TEST(Differences, ASlowerBootAloneIsARegression) {
    EXPECT_TRUE(Compare({Durations(100'000, {})}, {Durations(200'000, {})}, {}).HasRegressed());
    EXPECT_FALSE(Compare({Durations(200'000, {})}, {Durations(100'000, {})}, {}).HasRegressed());
    EXPECT_FALSE(Compare({Durations(1, {})}, {Durations(1, {{"new", 90'000}})}, {}).HasRegressed());
}

TEST(Differences, MediansStandForSeveralBoots) {
    const Differences differences =
        Compare({Durations(9, {{"a", 9}}), Durations(1, {{"a", 1}}), Durations(5, {{"a", 5}})},
                {Durations(4, {{"a", 4}, {"b", 8}}), Durations(7, {{"a", 7}}), Durations(1, {}), Durations(6, {})}, {});
    EXPECT_EQ(Shown(differences), "boot 5->5 same, b -->8 new, a 5->5 same");
}

TEST(Differences, PluginsOfOneNameAreToldApartByTheirOrder) {
    EXPECT_EQ(
        Shown(Compare({Durations(1, {{"a", 1}, {"a", 100}})}, {Durations(1, {{"a", 2}, {"a", 90}, {"a", 5}})}, {})),
        "boot 1->1 same, a -->5 new, a 100->90 same, a 1->2 same");
}

TEST(Differences, TheLargestChangeOfAKindComesFirst) {
    EXPECT_EQ(Shown(Compare({Durations(1, {{"a", 0}, {"b", 0}, {"c", 0}})},
                            {Durations(1, {{"a", 20'000}, {"b", 30'000}, {"c", 20'000}})}, {})),
              "boot 1->1 same, b 0->30000 slower, a 0->20000 slower, c 0->20000 slower");
}

TEST(Differences, BootsInWhichNothingRanHaveNoLength) {
    const Differences differences = Compare({{{}, std::nullopt}}, {Durations(5, {{"a", 5}})}, {});
    EXPECT_EQ(Shown(differences), "boot -->5 new, a -->5 new");
    EXPECT_FALSE(differences.HasRegressed());
}

}  // namespace
}  // namespace lofter::analyze
