// The kernel's boot log: one record per call, beside what init and the kernel write there.
//
// Never throws. A record that the kernel does not take is reported in the system log instead, and only there, as
// "Exception occurred while logging msg: <reason>" or "Unexpected exception while logging msg".
#pragma once

namespace lofter {

void KernelBootLog(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace lofter
