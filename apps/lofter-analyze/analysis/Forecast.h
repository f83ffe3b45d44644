// A boot as the program would run it, on a clock of its own: which plugin is picked when, and how long the whole takes.
//
// The nodes, their links and the queue of those that are ready are the program's own, so a forecast picks as it does.
// Only the work is not done: a plugin holds its thread for its duration. Barriers are picked like plugins, take no
// time, hold no thread and are through before the next pick. What happens at one instant happens one by one, in the
// order in which the plugins began.
#pragma once

#include <cstddef>
#include <vector>

#include "analysis/Boot.h"

namespace lofter::analyze {

struct ForecastModel {
    std::vector<Microseconds> durations;  // one for each plugin of the boot; not negative
    std::size_t threads = 1;              // at least one
    Microseconds begin = 0;               // when the first plugin starts
};

struct ForecastStep {
    PluginIndex plugin;
    Microseconds start;
    Microseconds end;
};

struct Forecast {
    std::vector<ForecastStep> steps;  // in the order of the picks; without those that a cycle holds up
    Microseconds makespan = 0;        // the end of the last one; 0 when none would run
};

Forecast MakeForecast(const Boot& boot, const ForecastModel& model);

// What a log says: durations, threads and the first start. The number of threads of a parallel run is the largest
// number of plugins that ran at once.
ForecastModel MeasuredModel(const Boot& boot);

// The end of the last plugin; nothing when none has run.
std::optional<Microseconds> MeasuredMakespan(const Boot& boot);

}  // namespace lofter::analyze
