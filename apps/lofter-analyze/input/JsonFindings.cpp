#include "input/JsonFindings.h"

#include <algorithm>
#include <array>
#include <numeric>
#include <optional>
#include <span>
#include <string_view>

#include "plugins/description/JsonFile.h"

namespace lofter::analyze {

namespace {

struct KnownMember {
    std::string_view name;
    int since;  // the first version of the plugin interface that reads it
};
constexpr std::array kRootMembers{KnownMember{"metadata", 1}, KnownMember{"operations", 1}, KnownMember{"$schema", 1}};
constexpr std::array kMetadataMembers{KnownMember{"version", 1},         KnownMember{"requires", 1},
                                      KnownMember{"provides", 1},        KnownMember{"required_flags", 3},
                                      KnownMember{"disabling_flags", 3}, KnownMember{"run_once", 3},
                                      KnownMember{"plugin_version", 3}};
constexpr std::array kOperations{KnownMember{"start", 1}, KnownMember{"apply_host_profile", 2}};

constexpr std::size_t kFarthest = 2;  // edits between a member and the one that was meant

// How many characters have to be added, dropped or replaced; more than the farthest when there are too many to count.
std::size_t Edits(std::string_view from, std::string_view to) {
    if (std::max(from.size(), to.size()) - std::min(from.size(), to.size()) > kFarthest) {
        return kFarthest + 1;
    }
    std::vector<std::size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < from.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i + 1;
        for (std::size_t j = 0; j < to.size(); ++j) {
            const std::size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

// The known member that is nearest; of equally near ones the first. A beginning of one, or more than one, comes last.
std::string_view Nearest(std::string_view name, std::span<const KnownMember> known) {
    std::string_view nearest;
    std::size_t fewest = kFarthest + 1;
    for (const KnownMember& member : known) {
        const std::size_t edits = Edits(name, member.name);
        const bool isBeginning = !name.empty() && (member.name.starts_with(name) || name.starts_with(member.name));
        if (edits < fewest || (edits == fewest && isBeginning && nearest.empty())) {
            nearest = member.name;
            fewest = edits;
        }
    }
    return nearest;
}

class MemberCheck {
  public:
    explicit MemberCheck(const PluginDescription& checked) : plugin(checked) {}

    void Check(const JsonPart& object, std::span<const KnownMember> known) {
        for (const JsonPart& part : object.parts) {
            const auto member = std::find_if(known.begin(), known.end(),
                                             [&](const KnownMember& candidate) { return candidate.name == part.name; });
            if (member == known.end()) {
                AddUnknown(part, Nearest(part.name, known));
            } else if (plugin.version >= 1 && plugin.version < member->since) {
                Add(part, "\"" + part.name + "\" is read from version " + std::to_string(member->since) +
                              " on, and this plugin has version " + std::to_string(plugin.version));
            }
        }
    }
    std::vector<Finding> Take() { return std::move(findings); }

  private:
    void AddUnknown(const JsonPart& part, std::string_view nearest) {
        std::string text = "unknown member \"" + part.name + "\"";
        if (!nearest.empty()) {
            text += ", perhaps \"" + std::string(nearest) + "\"";
        }
        Add(part, std::move(text));
    }
    void Add(const JsonPart& part, std::string text) {
        findings.push_back(
            {"unknown-member", Severity::Warning, PlaceIn(plugin, part.namePosition), plugin.name, std::move(text)});
    }

    const PluginDescription& plugin;
    std::vector<Finding> findings;
};

const JsonPart* FirstThatIsNoString(const JsonPart* list) {
    if (list == nullptr) {
        return nullptr;
    }
    const auto found =
        std::find_if(list->parts.begin(), list->parts.end(), [](const JsonPart& part) { return !part.isString; });
    return found == list->parts.end() ? nullptr : &*found;
}

// What the reason is about: the part itself, or else what it is missing in.
const JsonPart& PartOf(const std::string& reason, const JsonPart& root) {
    const JsonPart* const metadata = root.Member("metadata");
    const JsonPart* const operations = root.Member("operations");
    const JsonPart* part = nullptr;
    const auto look = [&](const JsonPart* object, const char* member, bool isMeant) {
        if (isMeant && object != nullptr && part == nullptr) {
            part = object->Member(member);
            part = part == nullptr ? object : part;
        }
    };
    const auto is = [&](std::string_view text) {
        return reason.find(text) != std::string::npos;
    };
    const auto lookForTag = [&](const JsonPart* object, const char* member, bool isMeant) {
        if (isMeant && object != nullptr && part == nullptr) {
            part = FirstThatIsNoString(object->Member(member));
        }
    };
    for (const KnownMember& member : kMetadataMembers) {
        const std::string name(member.name);
        look(metadata, name.c_str(), is("unable to parse " + name + ")"));
        lookForTag(metadata, name.c_str(), reason == name + " tag is not a string");
    }
    look(metadata, "version", reason == "Unsupported API version");
    look(operations, "start", is("unable to parse start)"));
    look(operations, "apply_host_profile", is("unable to parse apply-host-profile)"));
    for (const KnownMember& member : kOperations) {
        lookForTag(operations, member.name.data(), reason == "command is not a string");
    }
    look(&root, "metadata", reason == "invalid metadata interface");
    look(&root, "operations", reason == "invalid operations interface");
    return part == nullptr ? root : *part;
}

}  // namespace

JsonRejection LocateRejection(const std::string& text, const std::string& reason) {
    if (const std::optional<JsonFault> fault = FindJsonFault(text)) {
        return {reason + ": " + fault->text, PositionOf(text, fault->byte), false};
    }
    return {reason, PartOf(reason, FindJsonParts(text)).position, true};
}

std::vector<Finding> FindUnknownMembers(const PluginDescription& plugin, const JsonPart& root) {
    MemberCheck check(plugin);
    const auto checkIn = [&](const char* name, std::span<const KnownMember> known) {
        const JsonPart* const object = root.Member(name);
        if (object != nullptr && object->isObject) {
            check.Check(*object, known);
        }
    };
    if (root.isObject) {
        check.Check(root, kRootMembers);
        checkIn("metadata", kMetadataMembers);
        checkIn("operations", kOperations);
    }
    return check.Take();
}

Place PlaceIn(const PluginDescription& plugin, const TextPosition& position) {
    return {plugin.path, position.line, position.column};
}

}  // namespace lofter::analyze
