// System calls answered by a rule instead of by the kernel, for the calling process from now on.
//
// For refusals that cannot be had otherwise, and for calls that must not reach the machine (a test that switches the
// console of the machine it runs on makes no friends). Meant for a process that a test has forked.
#pragma once

#include <cstdint>
#include <vector>

namespace lofter::test {

struct SyscallRule {
    // Which calls: the number and, where given, the low halves of the second and third argument.
    int number;
    std::int64_t second = -1;
    std::int64_t third = -1;
    // What they answer: the error, where 0 is success without a deed; or the end of the process by SIGSYS.
    int error = 0;
    bool fatal = false;
};

// The first rule that fits decides; what none fits is passed on to the kernel.
void FilterSyscalls(const std::vector<SyscallRule>& rules);

}  // namespace lofter::test
