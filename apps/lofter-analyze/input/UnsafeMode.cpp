#include "input/UnsafeMode.h"

#include <utility>

namespace lofter::analyze {

void CheckMode(const struct stat& status, const std::string& shownPath, const std::string& plugin,
               std::vector<Finding>& findings) {
    const bool isGroupIn = (status.st_mode & S_IWGRP) != 0;
    const bool areOthersIn = (status.st_mode & S_IWOTH) != 0;
    if (!isGroupIn && !areOthersIn) {
        return;
    }
    std::string text = !areOthersIn ? "its group" : isGroupIn ? "its group and others" : "others";
    text += S_ISDIR(status.st_mode) ? " may change what is in this directory" : " may write this file";
    Place place{shownPath, 0, 0};
    findings.push_back({"unsafe-mode", Severity::Warning, std::move(place), plugin, std::move(text)});
}

}  // namespace lofter::analyze
