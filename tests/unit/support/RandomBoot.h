// Random boots as lines of text, in the form of TestBoot.h and TestGraph.h.
#pragma once

#include <cstddef>
#include <random>
#include <string>

namespace lofter::analyze::test {

struct RandomBoot {
    std::size_t plugins = 6;
    std::size_t barriers = 5;
    bool hasLoops = false;  // else plugins only wait for earlier barriers than they provide
    bool hasTimes = false;  // starts and ends that are not those of any run
    bool hasKeptOut = false;
};

// The number of plugins and barriers is at most that; plugins are "a", "b" and so on, barriers "b0", "b1".
std::string DrawBoot(const RandomBoot& limits, std::mt19937& random);

}  // namespace lofter::analyze::test
