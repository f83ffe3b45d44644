#include "plugins/description/JsonDescription.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>

#include <nlohmann/json.hpp>

#include "base/Exception.h"
#include "plugins/description/JsonFile.h"

namespace lofter {

namespace {

using Json = nlohmann::json;

constexpr std::int32_t kOldestVersion = 1;
constexpr std::int32_t kLatestVersion = 4;
constexpr std::int32_t kFirstVersionWithHostProfile = 2;
constexpr std::int32_t kFirstVersionWithFlags = 3;

// Toward zero; what does not fit becomes the nearest integer that does.
std::int32_t Truncate(double number) {
    using Limits = std::numeric_limits<std::int32_t>;
    return static_cast<std::int32_t>(std::clamp<double>(std::trunc(number), Limits::min(), Limits::max()));
}

std::string Corrupt(const char* part, const char* key) {
    return std::string(part) + " is corrupt (unable to parse " + key + ")";
}

// The object's member, or a value of no type.
const Json& Member(const Json& object, const char* key) {
    static const Json missing(Json::value_t::discarded);
    const auto member = object.find(key);
    return member == object.end() ? missing : *member;
}

// Fills a description in the order in which its file is read. Every complaint names the file.
class JsonReader {
  public:
    explicit JsonReader(PluginDescription& described) : plugin(described) {}

    void Read(const std::optional<std::string>& content) const {
        const Json root = Root(content);
        const Json& metadata = Member(root, "metadata");
        if (!metadata.is_object()) {
            Reject("invalid metadata interface");
        }
        ReadMetadata(metadata);
        const Json& operations = Member(root, "operations");
        if (!operations.is_object()) {
            Reject("invalid operations interface");
        }
        ReadOperations(operations);
    }

  private:
    [[noreturn]] void Reject(const std::string& reason) const { throw InvalidPluginException(plugin.path, reason); }

    Json Root(const std::optional<std::string>& content) const {
        if (!content) {
            Reject("no such file or directory");
        }
        Json root = ParseJson(*content);
        if (!root.is_object()) {
            Reject("plugin root is not an object");
        }
        return root;
    }

    void ReadMetadata(const Json& metadata) const {
        const Json& number = Member(metadata, "version");
        if (!number.is_number()) {
            Reject(Corrupt("metadata", "version"));
        }
        plugin.version = Truncate(number.get<double>());
        if (plugin.version < kOldestVersion || plugin.version > kLatestVersion) {
            Reject("Unsupported API version");
        }
        for (std::string& barrier : Tags(metadata, "requires")) {
            plugin.Require(std::move(barrier));
        }
        for (std::string& barrier : Tags(metadata, "provides")) {
            plugin.Provide(std::move(barrier));
        }
        if (plugin.version >= kFirstVersionWithFlags) {
            ReadFlagsAndRunOnce(metadata);
        }
    }

    void ReadFlagsAndRunOnce(const Json& metadata) const {
        ReadFlags(metadata, "required_flags", plugin.requiredFlags);
        ReadFlags(metadata, "disabling_flags", plugin.disablingFlags);

        const Json& once = Member(metadata, "run_once");
        if (!once.is_boolean()) {
            Reject(Corrupt("metadata", "run_once"));
        }
        plugin.runOnce = once.get<bool>();

        const Json& release = Member(metadata, "plugin_version");
        if (!release.is_string()) {
            Reject(Corrupt("metadata", "plugin_version"));
        }
        plugin.release = release.get<std::string>();
    }

    void ReadFlags(const Json& metadata, const char* key, std::set<std::string>& flags) const {
        if (metadata.contains(key)) {
            const std::vector<std::string> tags = Tags(metadata, key);
            flags.insert(tags.begin(), tags.end());
        }
    }

    void ReadOperations(const Json& operations) const {
        plugin.startCommands = Commands(operations, "start", "start");
        if (plugin.version >= kFirstVersionWithHostProfile && operations.contains("apply_host_profile")) {
            // The message spells the key with hyphens; kept on purpose.
            plugin.hostProfileCommands = Commands(operations, "apply_host_profile", "apply-host-profile");
            plugin.hasHostProfileOperation = !plugin.hostProfileCommands.empty();
        }
    }

    std::vector<std::string> Tags(const Json& metadata, const char* key) const {
        return Strings(Member(metadata, key), Corrupt("metadata", key), std::string(key) + " tag is not a string");
    }
    std::vector<std::string> Commands(const Json& operations, const char* key, const char* keyInMessage) const {
        return Strings(Member(operations, key), Corrupt("operations", keyInMessage), "command is not a string");
    }
    std::vector<std::string> Strings(const Json& list, const std::string& noArray, const std::string& noString) const {
        if (!list.is_array()) {
            Reject(noArray);
        }
        std::vector<std::string> strings;
        for (const Json& element : list) {
            if (!element.is_string()) {
                Reject(noString);
            }
            strings.push_back(element.get<std::string>());
        }
        return strings;
    }

    PluginDescription& plugin;
};

}  // namespace

PluginDescription DescribeJsonPlugin(const std::string& name, const std::string& path) {
    return DescribeJsonContent(name, path, ReadFileContent(path));
}

PluginDescription DescribeJsonContent(const std::string& name, const std::string& path,
                                      const std::optional<std::string>& content) {
    PluginDescription plugin(PluginKind::Json, name, path);
    try {
        JsonReader(plugin).Read(content);
    } catch (...) {
        plugin.failure = std::current_exception();
    }
    return plugin;
}

}  // namespace lofter
