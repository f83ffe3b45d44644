#include "report/Findings.h"

#include <string>
#include <string_view>

namespace lofter::analyze {

namespace {

std::string Counted(std::size_t number, const std::string& noun) {
    return std::to_string(number) + " " + noun + (number == 1 ? "" : "s");
}

std::string ShownPlace(const Place& place) {
    std::string text = Shown(place.file);
    if (place.line > 0) {
        text += ":" + std::to_string(place.line);
    }
    if (place.column > 0) {
        text += ":" + std::to_string(place.column);
    }
    return text;
}

Colour ColourOf(Severity severity) {
    return severity == Severity::Error ? Colour::Red : severity == Severity::Warning ? Colour::Yellow : Colour::Blue;
}

Json NullIfNone(int number) {
    return number > 0 ? Json(number) : Json(nullptr);
}

// As a relative or absolute reference of RFC 3986.
std::string Uri(std::string_view path) {
    constexpr std::string_view kPlain = "-._~/!$&'()*+,;=@";
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    std::string uri;
    for (const char c : path) {
        const bool isLetterOrDigit = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
        if (isLetterOrDigit || kPlain.find(c) != std::string_view::npos) {
            uri += c;
        } else {
            const auto byte = static_cast<unsigned char>(c);
            uri += {'%', kDigits[byte >> 4U], kDigits[byte & 0xfU]};
        }
    }
    return uri;
}

Json LocationOf(const Place& place) {
    Json location{{"artifactLocation", {{"uri", Uri(place.file)}}}};
    if (place.line > 0) {
        location["region"]["startLine"] = place.line;
    }
    if (place.column > 0) {
        location["region"]["startColumn"] = place.column;
    }
    return {{"physicalLocation", location}};
}

}  // namespace

void PrintFindings(const std::vector<Finding>& findings, std::ostream& output, const Palette& palette) {
    for (const Finding& finding : findings) {
        output << ShownPlace(finding.place) << ": "
               << palette.Paint(ColourOf(finding.severity), NameOf(finding.severity)) << ": " << Shown(finding.text)
               << " [" << finding.rule << "]\n";
    }
    const FindingCounts counts = Count(findings);
    output << Counted(counts.errors, "error") << ", " << Counted(counts.warnings, "warning") << ", "
           << Counted(counts.notes, "note") << '\n';
}

void AddFindings(Json& answer, const std::vector<Finding>& findings) {
    Json list = Json::array();
    for (const Finding& finding : findings) {
        list.push_back({{"rule", finding.rule},
                        {"severity", NameOf(finding.severity)},
                        {"file", finding.place.file},
                        {"line", NullIfNone(finding.place.line)},
                        {"column", NullIfNone(finding.place.column)},
                        {"plugin", finding.plugin.empty() ? Json(nullptr) : Json(finding.plugin)},
                        {"text", finding.text}});
    }
    const FindingCounts counts = Count(findings);
    answer["findings"] = std::move(list);
    answer["errors"] = counts.errors;
    answer["warnings"] = counts.warnings;
    answer["notes"] = counts.notes;
}

Json Sarif(const std::vector<Finding>& findings) {
    Json rules = Json::array();
    for (const Rule& rule : Rules()) {
        rules.push_back({{"id", rule.name},
                         {"shortDescription", {{"text", rule.meaning}}},
                         {"defaultConfiguration", {{"level", NameOf(rule.severity)}}}});
    }
    Json results = Json::array();
    for (const Finding& finding : findings) {
        results.push_back({{"ruleId", finding.rule},
                           {"level", NameOf(finding.severity)},
                           {"message", {{"text", finding.text}}},
                           {"locations", Json::array({LocationOf(finding.place)})}});
    }
    const Json driver{{"name", "lofter-analyze"}, {"rules", std::move(rules)}};
    const Json run{
        {"tool", {{"driver", driver}}}, {"columnKind", "unicodeCodePoints"}, {"results", std::move(results)}};
    return {{"$schema", "https://json.schemastore.org/sarif-2.1.0.json"},
            {"version", "2.1.0"},
            {"runs", Json::array({run})}};
}

}  // namespace lofter::analyze
