// Files and directories that others than their owner may write.
#pragma once

#include <string>
#include <vector>

#include <sys/stat.h>

#include "analysis/Finding.h"

namespace lofter::analyze {

// Adds a finding of rule "unsafe-mode" when the mode asks for one.
void CheckMode(const struct stat& status, const std::string& shownPath, const std::string& plugin,
               std::vector<Finding>& findings);

}  // namespace lofter::analyze
