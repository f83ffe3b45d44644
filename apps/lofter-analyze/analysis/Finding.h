// Something worth saying about a host's plugins.
#pragma once

#include <string>

#include "analysis/Boot.h"

namespace lofter::analyze {

enum class Severity { Note, Warning, Error };

struct Finding {
    std::string rule;
    Severity severity;
    Place place;
    std::string plugin;  // empty when it is about none
    std::string text;
};

}  // namespace lofter::analyze
