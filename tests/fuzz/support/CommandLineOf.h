// A command line as the program gets it, into a settings record.
#pragma once

#include <string>
#include <vector>

#include "CommandLine.h"

namespace lofter::fuzz {

// The words, the program's name not among them, are NUL-terminated like those that the system passes on.
inline CommandLine Parse(std::vector<std::string> words, Settings& settings) {
    words.insert(words.begin(), "lofter");
    std::vector<char*> pointers;
    for (std::string& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    return ParseCommandLine(static_cast<int>(words.size()), pointers.data(), settings);
}

}  // namespace lofter::fuzz
