// The course of a measured boot: what ran beside what, and the chain of waits that led to its end.
#pragma once

#include <optional>
#include <vector>

#include "analysis/Boot.h"
#include "analysis/Waits.h"

namespace lofter::analyze {

struct Course {
    // A log does not say on which thread a plugin ran: each is put into the first lane that is free at its start, so
    // there are as many lanes as plugins ran at once. Within a lane by start. Plugins that have no start are in none;
    // those without an end take no time.
    std::vector<std::vector<PluginIndex>> lanes;
    std::vector<std::optional<Wait>> waits;  // as FindWaits gives them
    std::vector<PluginIndex> chain;          // the critical chain, first to last
    std::vector<bool> isCritical;            // by plugin: whether it is on the chain
    Microseconds begin = 0;                  // of what there is to see: 0, or an earlier start
    Microseconds end = 0;                    // the latest end of a plugin; not before `begin`
};

// Of a boot with a log.
Course FindCourse(const Boot& boot);

// The time that a plugin took on its thread: 0 when it has no end. Of a plugin with a start.
Microseconds TimeTaken(const BootPlugin& plugin);

}  // namespace lofter::analyze
