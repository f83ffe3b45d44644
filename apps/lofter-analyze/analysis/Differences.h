// Two sets of boots beside each other.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "analysis/Boot.h"

namespace lofter::analyze {

// How long each plugin of a boot took, and the boot as a whole.
struct BootDurations {
    struct Plugin {
        std::string name;
        Microseconds duration;
    };
    std::vector<Plugin> plugins;         // those that ran; plugins of one name are told apart by their order
    std::optional<Microseconds> length;  // nothing when none ran
};

// What makes a difference worth telling: at least both.
struct Threshold {
    double percent = 20;  // of the old duration
    Microseconds time = 10'000;
};

enum class Change { Slower, Faster, New, Gone, Same };

// Medians; nothing where there is none.
struct Difference {
    std::optional<Microseconds> before;
    std::optional<Microseconds> after;
    Change change = Change::Same;
};

struct Differences {
    struct Plugin {
        std::string name;
        Difference difference;
    };
    Difference boot;
    std::vector<Plugin> plugins;  // by kind of change in the order of that type, then the largest first, then by name

    bool HasRegressed() const;
};

// Of an even number the median is the mean of the middle two, without a fraction.
Differences Compare(const std::vector<BootDurations>& before, const std::vector<BootDurations>& after,
                    const Threshold& threshold);

}  // namespace lofter::analyze
