// Something worth saying about a host's plugins, by one of the rules.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "analysis/Boot.h"

namespace lofter::analyze {

enum class Severity { Note, Warning, Error };

// "error", "warning" or "note".
const char* NameOf(Severity severity);

struct Finding {
    std::string rule;
    Severity severity;
    Place place;
    std::string plugin;  // empty when it is about none
    std::string text;
};

struct Rule {
    std::string_view name;
    Severity severity;
    std::string_view meaning;
};

// All that there are.
std::span<const Rule> Rules();

// By file, line and rule; what is said twice is said once.
std::vector<Finding> Sorted(std::vector<Finding> findings);

struct FindingCounts {
    std::size_t errors = 0;
    std::size_t warnings = 0;
    std::size_t notes = 0;
};
FindingCounts Count(const std::vector<Finding>& findings);

}  // namespace lofter::analyze
