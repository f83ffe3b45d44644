// What would make a boot end sooner.
#pragma once

#include <cstddef>
#include <vector>

#include "analysis/Boot.h"
#include "analysis/Forecast.h"

namespace lofter::analyze {

struct Gain {
    PluginIndex plugin;
    Microseconds gain;  // how much sooner the boot would end if the plugin took no time; may be negative
};

// For each plugin that would run, the greatest gain first, then by names. Of more than 1,000 plugins only the 100 of
// least slack are looked at. The makespan is that of a forecast with this model.
std::vector<Gain> RankGains(const Boot& boot, const ForecastModel& model, Microseconds makespan);

struct ThreadsForecast {
    std::size_t threads;
    Microseconds makespan;
};

// With twice as many threads, four times, eight times and sixteen times as many, as far as that may bring anything.
std::vector<ThreadsForecast> ForecastMoreThreads(const Boot& boot, const ForecastModel& model, Microseconds makespan);

}  // namespace lofter::analyze
