// Which plugins the options of a run let in. Debug plugins are not asked.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "plugins/description/PluginDescription.h"

namespace lofter {

struct AdmissionRules {
    std::vector<std::string> disabledPlugins;  // by the plugin's name, not by the file's
    std::set<std::string> bootFlags;
};

// What keeps a plugin out, if anything does.
struct Admission {
    bool isDisabled = false;
    std::vector<std::string> disablingFlags;  // of the boot's, ascending
    std::vector<std::string> missingFlags;    // that the plugin requires, ascending

    bool IsGranted() const { return !isDisabled && disablingFlags.empty() && missingFlags.empty(); }
};

Admission Admit(const PluginDescription& plugin, const AdmissionRules& rules);

// What a plugin that runs once is looked up by: its name and its release.
std::string RunOnceKey(const PluginDescription& plugin);

// The key as a record holds it: only letters, digits and "-", ".", "_" and "+" of it.
std::string RecordedKey(std::string key);

}  // namespace lofter
