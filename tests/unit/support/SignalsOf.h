// The signal sets of a process, as its status file in /proc lists them.
#pragma once

#include <cstdint>
#include <string>

namespace lofter::test {

// The set of that name, "SigIgn" for instance, less the two signals that the C library keeps for itself and that no
// program sees.
inline std::uint64_t SignalsOf(const std::string& processStatus, const std::string& name) {
    constexpr std::uint64_t kOfTheLibrary = 3ULL << 31;
    const std::size_t at = processStatus.find(name + ":\t");
    return at == std::string::npos
               ? ~0ULL
               : std::stoull(processStatus.substr(at + name.size() + 2), nullptr, 16) & ~kOfTheLibrary;
}

}  // namespace lofter::test
