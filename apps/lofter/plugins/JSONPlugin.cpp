#include "plugins/JSONPlugin.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <exception>
#include <limits>
#include <optional>
#include <set>

#include <nlohmann/json.hpp>

#include "Logging.h"
#include "executor/QorcliExecutor.h"
#include "plugins/Exception.h"
#include "plugins/JsonFile.h"

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

void SendToExecutor(const std::string& command) {
    QorcliExecutor::Instance()->SendCommand(command);
}

}  // namespace

// Reads the members of a plugin file. Every complaint names the file.
class JSONPlugin::File {
  public:
    explicit File(const std::string& filePath) : path(filePath) {}

    [[noreturn]] void Reject(const std::string& reason) const { throw InvalidPluginException(path, reason); }

    Json Root() const {
        const std::optional<std::string> content = ReadFileContent(path);
        if (!content) {
            Reject("no such file or directory");
        }
        Json root = ParseJson(*content);
        if (!root.is_object()) {
            Reject("plugin root is not an object");
        }
        return root;
    }

    // The object's member, or a value of no type.
    static const Json& Member(const Json& object, const char* key) {
        static const Json missing(Json::value_t::discarded);
        const auto member = object.find(key);
        return member == object.end() ? missing : *member;
    }

    std::vector<std::string> Tags(const Json& metadata, const char* key) const {
        return Strings(Member(metadata, key), Corrupt("metadata", key), std::string(key) + " tag is not a string");
    }
    std::vector<std::string> Commands(const Json& operations, const char* key, const char* keyInMessage) const {
        return Strings(Member(operations, key), Corrupt("operations", keyInMessage), "command is not a string");
    }

    static std::string Corrupt(const char* part, const char* key) {
        return std::string(part) + " is corrupt (unable to parse " + key + ")";
    }

  private:
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

    const std::string& path;
};

JSONPlugin::JSONPlugin(const std::string& pluginName, const std::string& path) : Plugin(pluginName) {
    const File file(path);
    const Json root = file.Root();
    const Json& metadata = File::Member(root, "metadata");
    if (!metadata.is_object()) {
        file.Reject("invalid metadata interface");
    }
    ReadMetadata(file, metadata);
    const Json& operations = File::Member(root, "operations");
    if (!operations.is_object()) {
        file.Reject("invalid operations interface");
    }
    ReadOperations(file, operations);
}

JSONPlugin::~JSONPlugin() = default;

void JSONPlugin::ReadMetadata(const File& file, const Json& metadata) {
    const Json& number = File::Member(metadata, "version");
    if (!number.is_number()) {
        file.Reject(File::Corrupt("metadata", "version"));
    }
    version = Truncate(number.get<double>());
    if (version < kOldestVersion || version > kLatestVersion) {
        file.Reject("Unsupported API version");
    }
    for (const std::string& barrier : file.Tags(metadata, "requires")) {
        RequireBarrier(barrier);
    }
    for (const std::string& barrier : file.Tags(metadata, "provides")) {
        ProvideBarrier(barrier);
    }
    if (version >= kFirstVersionWithFlags) {
        ReadFlagsAndRunOnce(file, metadata);
    }
}

void JSONPlugin::ReadFlagsAndRunOnce(const File& file, const Json& metadata) {
    const auto readFlags = [&](const char* key, std::set<std::string>& flags) {
        if (metadata.contains(key)) {
            const std::vector<std::string> tags = file.Tags(metadata, key);
            flags.insert(tags.begin(), tags.end());
        }
    };
    readFlags("required_flags", required_flags);
    readFlags("disabling_flags", disabling_flags);

    const Json& once = File::Member(metadata, "run_once");
    if (!once.is_boolean()) {
        file.Reject(File::Corrupt("metadata", "run_once"));
    }
    run_once = once.get<bool>();

    const Json& release = File::Member(metadata, "plugin_version");
    if (!release.is_string()) {
        file.Reject(File::Corrupt("metadata", "plugin_version"));
    }
    plugin_version = release.get<std::string>();
}

void JSONPlugin::ReadOperations(const File& file, const Json& operations) {
    startCommands = file.Commands(operations, "start", "start");
    if (version >= kFirstVersionWithHostProfile && operations.contains("apply_host_profile")) {
        // The message spells the key with hyphens; kept on purpose.
        hostProfileCommands = file.Commands(operations, "apply_host_profile", "apply-host-profile");
    }
}

void JSONPlugin::StartPlugin() {
    RunCommandList("start", Name(), startCommands, SendToExecutor);
}

bool JSONPlugin::HasApplyHostProfile() const {
    return version >= kFirstVersionWithHostProfile && !hostProfileCommands.empty();
}

void JSONPlugin::ApplyHostProfile() {
    if (version < kFirstVersionWithHostProfile) {
        // Spelled unlike the other kinds; kept on purpose, it is what operators see.
        throw NotImplementedException("json_plugin::ApplyHostProfile");
    }
    RunCommandList("apply_host_profile", Name(), hostProfileCommands, SendToExecutor);
}

void RunCommandList(const std::string& method, const std::string& plugin, const std::vector<std::string>& commands,
                    const std::function<void(const std::string&)>& send) {
    int failures = 0;
    for (const std::string& command : commands) {
        try {
            send(command);
        } catch (const std::exception& e) {
            Log_Level(kError, "%s\n", e.what());
            ++failures;
        } catch (...) {
            ++failures;
        }
    }
    if (failures > 0) {
        throw MethodFailedException(method, plugin, "error while executing the cli");
    }
}

}  // namespace lofter
