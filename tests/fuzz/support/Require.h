// What must hold for every input. Where it does not, the process aborts and the fuzzer keeps the input.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

namespace lofter::fuzz {

inline void Require(bool holds, const std::string& what) {
    if (!holds) {
        std::fprintf(stderr, "does not hold: %s\n", what.c_str());
        std::abort();
    }
}

inline void Require(bool holds, const char* what) {
    if (!holds) {
        Require(false, std::string(what));
    }
}

}  // namespace lofter::fuzz
