#include "analysis/Finding.h"

#include <algorithm>
#include <array>
#include <tuple>

namespace lofter::analyze {

namespace {

constexpr std::array kRules{
    Rule{"cycle", Severity::Error, "Plugins wait for each other for ever."},
    Rule{"unreadable", Severity::Error, "lofter rejects the file of a plugin."},
    Rule{"native-interface", Severity::Error, "Metadata or operations of an object are not as lofter needs them."},
    Rule{"wrong-machine", Severity::Error, "An object is for another machine than the host."},
    Rule{"missing-library", Severity::Error, "The host does not have a library that an object needs."},
    Rule{"command-syntax", Severity::Error, "A host command cannot be parsed."},
    Rule{"missing-provider", Severity::Warning, "No plugin provides a barrier that plugins require."},
    Rule{"unknown-command", Severity::Warning, "The host does not have a command that a plugin runs."},
    Rule{"duplicate-name", Severity::Warning, "Two plugins have the same name."},
    Rule{"debug-line", Severity::Warning, "lofter skips a line of the debug configuration."},
    Rule{"ignored-file", Severity::Warning, "lofter ignores a file in the plugin directory."},
    Rule{"unknown-member", Severity::Warning, "lofter does not look at a member of a plugin file."},
    Rule{"run-once-key", Severity::Warning, "A plugin that is to run once runs at every boot."},
    Rule{"unsafe-mode", Severity::Warning, "Others than its owner may change what runs at boot."},
    Rule{"unused-barrier", Severity::Note, "No plugin requires a barrier that is provided."},
    Rule{"kept-out", Severity::Note, "The options keep a plugin from running."},
};

auto Key(const Finding& finding) {
    const Place& place = finding.place;
    return std::tie(place.file, place.line, finding.rule, place.column, finding.plugin, finding.text);
}

}  // namespace

const char* NameOf(Severity severity) {
    switch (severity) {
        case Severity::Error:
            return "error";
        case Severity::Warning:
            return "warning";
        case Severity::Note:
            break;
    }
    return "note";
}

std::span<const Rule> Rules() {
    return kRules;
}

std::vector<Finding> Sorted(std::vector<Finding> findings) {
    std::sort(findings.begin(), findings.end(), [](const Finding& a, const Finding& b) { return Key(a) < Key(b); });
    const auto rest = std::unique(findings.begin(), findings.end(),
                                  [](const Finding& a, const Finding& b) { return Key(a) == Key(b); });
    findings.erase(rest, findings.end());
    return findings;
}

FindingCounts Count(const std::vector<Finding>& findings) {
    const auto number = [&](Severity severity) {
        return static_cast<std::size_t>(std::count_if(
            findings.begin(), findings.end(), [&](const Finding& finding) { return finding.severity == severity; }));
    };
    return {number(Severity::Error), number(Severity::Warning), number(Severity::Note)};
}

}  // namespace lofter::analyze
