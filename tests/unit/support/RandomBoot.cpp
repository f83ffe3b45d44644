#include "support/RandomBoot.h"

#include <algorithm>

namespace lofter::analyze::test {

std::string DrawBoot(const RandomBoot& limits, std::mt19937& random) {
    const std::size_t plugins = 1 + random() % limits.plugins;
    const std::size_t barriers = 1 + random() % limits.barriers;
    std::string names;
    for (std::size_t number = 0; number < plugins; ++number) {
        names += static_cast<char>('a' + number);
    }
    std::shuffle(names.begin(), names.end(), random);

    std::string text;
    for (const char name : names) {
        text += name;
        text += ':';
        const std::size_t middle = random() % (barriers + 1);
        for (std::size_t links = random() % 4; links > 0; --links) {
            const std::size_t barrier = random() % barriers;
            const bool isRequired = limits.hasLoops ? random() % 2 == 0 : barrier < middle;
            text += (isRequired ? " requires b" : " provides b") + std::to_string(barrier);
        }
        if (limits.hasTimes) {
            const std::size_t start = random() % 50;
            text += " ran " + std::to_string(start) + ' ' + std::to_string(start + random() % 20);
        }
        text += limits.hasKeptOut && random() % 8 == 0 ? " out\n" : "\n";
    }
    return text;
}

}  // namespace lofter::analyze::test
