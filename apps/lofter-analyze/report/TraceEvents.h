// The course of a boot for viewers of traces, in the Trace Event format.
#pragma once

#include <ostream>

#include "analysis/Course.h"

namespace lofter::analyze {

// Of a boot with a log: a thread for each lane, an event for each plugin, and arrows along the critical chain. The
// viewers know no times before 0: where a plugin began before lofter did, all times count from the first start.
void WriteTraceEvents(const Boot& boot, const Course& course, std::ostream& output);

}  // namespace lofter::analyze
