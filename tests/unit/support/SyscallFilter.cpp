#include "support/SyscallFilter.h"

#include <bit>
#include <cstddef>
#include <cstdlib>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>

namespace lofter::test {

namespace {

constexpr std::uint32_t kLowHalf = std::endian::native == std::endian::little ? 0 : 4;

std::uint32_t Argument(std::uint32_t index) {
    return static_cast<std::uint32_t>(offsetof(seccomp_data, args)) + index * 8 + kLowHalf;
}

// Compares the word at the offset, and jumps over the given number of instructions when it differs.
void Match(std::vector<sock_filter>& program, std::uint32_t offset, std::uint32_t value, std::uint8_t skip) {
    program.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offset));
    program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, skip));
}

void Append(std::vector<sock_filter>& program, const SyscallRule& rule) {
    const auto second = static_cast<std::uint8_t>(rule.second >= 0 ? 2 : 0);
    const auto third = static_cast<std::uint8_t>(rule.third >= 0 ? 2 : 0);
    Match(program, offsetof(seccomp_data, nr), static_cast<std::uint32_t>(rule.number),
          static_cast<std::uint8_t>(second + third + 1));
    if (second != 0) {
        Match(program, Argument(1), static_cast<std::uint32_t>(rule.second), static_cast<std::uint8_t>(third + 1));
    }
    if (third != 0) {
        Match(program, Argument(2), static_cast<std::uint32_t>(rule.third), 1);
    }
    const std::uint32_t answer =
        rule.fatal ? SECCOMP_RET_KILL_PROCESS : SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(rule.error);
    program.push_back(BPF_STMT(BPF_RET | BPF_K, answer));
}

}  // namespace

void FilterSyscalls(const std::vector<SyscallRule>& rules) {
    std::vector<sock_filter> program;
    for (const SyscallRule& rule : rules) {
        Append(program, rule);
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) {
        std::abort();
    }
}

}  // namespace lofter::test
