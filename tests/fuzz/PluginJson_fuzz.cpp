// The bytes are a JSON plugin file. No command of it is run.
//
// A file is rejected with one of the known reasons, or what it says holds together; and discovery, which reads it
// again, comes to the same.
#include <algorithm>
#include <array>
#include <memory>
#include <string_view>

#include "base/Exception.h"
#include "base/Settings.h"
#include "plugins/Discovery.h"
#include "plugins/JSONPlugin.h"
#include "plugins/description/JsonDescription.h"
#include "support/Bytes.h"
#include "support/Plugins.h"
#include "support/Require.h"
#include "support/TemporaryDirectory.h"

namespace lofter::fuzz {
namespace {

constexpr std::array<std::string_view, 17> kReasons = {
    "plugin root is not an object",
    "invalid metadata interface",
    "metadata is corrupt (unable to parse version)",
    "Unsupported API version",
    "metadata is corrupt (unable to parse requires)",
    "requires tag is not a string",
    "metadata is corrupt (unable to parse provides)",
    "provides tag is not a string",
    "metadata is corrupt (unable to parse required_flags)",
    "required_flags tag is not a string",
    "metadata is corrupt (unable to parse disabling_flags)",
    "disabling_flags tag is not a string",
    "metadata is corrupt (unable to parse run_once)",
    "metadata is corrupt (unable to parse plugin_version)",
    "invalid operations interface",
    "operations is corrupt (unable to parse start)",
    "operations is corrupt (unable to parse apply-host-profile)",
};
constexpr std::string_view kBadCommand = "command is not a string";

// Null when the file was rejected.
std::unique_ptr<JSONPlugin> Load(const std::string& path) {
    try {
        return test::MakePlugin<JSONPlugin>(DescribeJsonPlugin("fuzzed", path));
    } catch (const InvalidPluginException& e) {
        const std::string beginning = "plugin `" + path + "' is invalid: ";
        const std::string text = e.what();
        Require(text.starts_with(beginning), "a rejection names the file");
        const std::string reason = text.substr(beginning.size());
        Require(reason == kBadCommand || std::find(kReasons.begin(), kReasons.end(), reason) != kReasons.end(),
                "unknown reason: " + reason);
        return nullptr;
    }
}

void HoldsTogether(const JSONPlugin& plugin) {
    const std::int32_t version = plugin.GetVersion();
    Require(version >= 1 && version <= 4, "the version is supported");
    Require(version >= 3 || (plugin.RequiredFlags().empty() && plugin.DisablingFlags().empty() && !plugin.RunOnce() &&
                             plugin.PluginVersion().empty()),
            "versions below 3 have neither flags nor a release");
    Require(version >= 2 || plugin.Description().hostProfileCommands.empty(), "version 1 knows no host profiles");
    Require(plugin.HasApplyHostProfile() == !plugin.Description().hostProfileCommands.empty(),
            "host profiles by their commands");
}

bool Has(const std::set<std::string>& all, const std::set<std::string>& some) {
    return std::includes(all.begin(), all.end(), some.begin(), some.end());
}

void IsDiscovered(const test::TemporaryDirectory& folder, const JSONPlugin* loaded) {
    const std::set<std::string> bootFlags = {"a", "boot"};
    std::set<std::string> runOnce = {"fuzzed1.0"};
    PluginList plugins;
    const Settings settings;
    Graph graph(settings);
    Discovery({folder.Path(), folder / "debug.conf", {{}, bootFlags}}, graph, test::NoActivator::Instance(), runOnce,
              plugins)
        .DiscoverListed({"libfuzzed.json"});
    if (loaded == nullptr) {
        Require(plugins.empty(), "what cannot be loaded is not discovered");
        return;
    }
    const bool isDisabled = std::any_of(bootFlags.begin(), bootFlags.end(),
                                        [&](const auto& flag) { return loaded->DisablingFlags().contains(flag); });
    const bool isAdmitted = !isDisabled && Has(bootFlags, loaded->RequiredFlags());
    Require(plugins.size() == (isAdmitted ? 1U : 0U), "boot flags decide");
    if (isAdmitted) {
        Require(plugins.front()->Dependencies().size() + plugins.front()->Dependents().size() ==
                    loaded->Description().links.size(),
                "every link of the file is one of the graph");
        const bool hasRun = loaded->RunOnce() && loaded->PluginVersion() == "1.0";
        Require(plugins.front()->Name() == "fuzzed", "the name is the file's");
        Require((plugins.front()->State() == NodeState::Started) == hasRun, "what ran once counts as started");
    }
}

}  // namespace
}  // namespace lofter::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lofter::fuzz;
    static const lofter::test::TemporaryDirectory folder;
    const std::string path = folder.Write("libfuzzed.json", Bytes(data, size).Rest());
    const std::unique_ptr<lofter::JSONPlugin> plugin = Load(path);
    if (plugin != nullptr) {
        HoldsTogether(*plugin);
    }
    IsDiscovered(folder, plugin.get());
    return 0;
}
