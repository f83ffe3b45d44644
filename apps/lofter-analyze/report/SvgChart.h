// The course of a boot as a picture: a lane for each thread, and below them a row for each plugin with its name.
#pragma once

#include <ostream>

#include "analysis/Course.h"

namespace lofter::analyze {

// Of a boot with a log. Names, times and reasons of waits are shown when the pointer rests on a bar. Of very many
// plugins only the slowest have rows, and the picture says so.
void WriteSvgChart(const Boot& boot, const Course& course, std::ostream& output);

}  // namespace lofter::analyze
