#include "plugins/description/Admission.h"

#include <algorithm>
#include <iterator>

namespace lofter {

namespace {

bool IsKeyCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
           c == '_' || c == '+';
}

}  // namespace

Admission Admit(const PluginDescription& plugin, const AdmissionRules& rules) {
    Admission admission;
    const std::vector<std::string>& disabled = rules.disabledPlugins;
    admission.isDisabled = std::find(disabled.begin(), disabled.end(), plugin.name) != disabled.end();
    std::set_intersection(plugin.disablingFlags.begin(), plugin.disablingFlags.end(), rules.bootFlags.begin(),
                          rules.bootFlags.end(), std::back_inserter(admission.disablingFlags));
    std::set_difference(plugin.requiredFlags.begin(), plugin.requiredFlags.end(), rules.bootFlags.begin(),
                        rules.bootFlags.end(), std::back_inserter(admission.missingFlags));
    return admission;
}

std::string RunOnceKey(const PluginDescription& plugin) {
    return plugin.name + plugin.release;
}

std::string RecordedKey(std::string key) {
    std::erase_if(key, [](char c) { return !IsKeyCharacter(c); });
    return key;
}

}  // namespace lofter
