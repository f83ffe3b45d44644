#include "input/Host.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <utility>

#include "base/Paths.h"
#include "input/Errors.h"
#include "input/GivenFile.h"
#include "input/HostCommands.h"
#include "input/HostRoot.h"
#include "input/JsonFindings.h"
#include "input/Libraries.h"
#include "input/NativeFile.h"
#include "input/UnsafeMode.h"
#include "plugins/description/Admission.h"
#include "plugins/description/DebugConfiguration.h"
#include "plugins/description/JsonDescription.h"
#include "plugins/description/PluginFileName.h"
#include "posix/File.h"

namespace lofter::analyze {

namespace {

constexpr std::size_t kLongestFile = std::size_t{16} * 1024 * 1024;

std::string Joined(const std::string& directory, const std::string& name) {
    return (std::filesystem::path(directory) / name).string();
}

// As far as lofter is concerned there is no such file, whatever keeps it from being opened.
bool IsMissing(int reason) {
    return reason == ENOENT || reason == ENOTDIR || reason == ELOOP || reason == ENAMETOOLONG;
}

// Without what tells which plugin it is about.
std::string ReasonOf(const PluginDescription& plugin) {
    try {
        std::rethrow_exception(plugin.failure);
    } catch (const std::exception& e) {
        const std::string text = e.what();
        const std::string beginning = InvalidPluginException(plugin.path, "").what();
        return text.starts_with(beginning) ? text.substr(beginning.size()) : text;
    }
}

std::string Listed(const std::vector<std::string>& flags) {
    std::string text = flags.size() == 1 ? "the boot flag " : "the boot flags ";
    for (const std::string& flag : flags) {
        text += (&flag == &flags.front() ? "" : ", ") + flag;
    }
    return text;
}

std::string TextOf(const Admission& admission) {
    if (admission.isDisabled) {
        return "disabled by --disable-plugins";
    }
    std::string text = admission.disablingFlags.empty() ? "" : "disabled by " + Listed(admission.disablingFlags);
    if (!admission.missingFlags.empty()) {
        text += (text.empty() ? "without " : ", and without ") + Listed(admission.missingFlags);
    }
    return text;
}

// Reads a host's plugins as discovery does: every file by its name, then the debug configuration.
class HostReader {
  public:
    explicit HostReader(const InputOptions& inputOptions)
        : options(inputOptions),
          root(OpenRoot(options)),
          givenFolder(options.pluginDirectory ? std::optional<HostRoot>(*options.pluginDirectory) : std::nullopt),
          commands(root ? &*root : nullptr) {
        if (root) {
            libraries.emplace(*root);
        }
        if (givenFolder) {
            folder = {&*givenFolder, "/", *options.pluginDirectory};
        } else if (root) {
            folder = {&*root, paths::kPluginDirectory, paths::kPluginDirectory};
        }
    }

    Host Read() {
        ReadDebugEntries();
        const std::vector<std::string> fileNames = options.plugins.empty() ? AllFiles() : options.plugins;
        CheckDirectory();
        for (const std::string& fileName : fileNames) {
            ProcessFile(fileName);
        }
        if (options.plugins.empty()) {
            AddDebugPlugins(std::nullopt);
        }
        SettleMachines();
        AdmitAll();
        Add(commands.UnsafeModes());
        return std::move(host);
    }

  private:
    // Where plugin files are, in which root, and how the directory is shown.
    struct Folder {
        const HostRoot* root = nullptr;
        std::string path;
        std::string shown;
    };
    // A native plugin whose machine and libraries are still to be looked at.
    struct PendingNative {
        PluginIndex plugin;
        NativeFile file;
        std::string directory;
    };

    void Add(const std::vector<Finding>& found) {
        host.findings.insert(host.findings.end(), found.begin(), found.end());
    }
    void Add(const char* rule, Severity severity, Place place, const std::string& plugin, std::string text) {
        host.findings.push_back({rule, severity, std::move(place), plugin, std::move(text)});
    }

    std::vector<std::string> AllFiles() const {
        if (folder.root == nullptr) {
            return {};
        }
        const std::optional<std::vector<std::string>> names = folder.root->FileNames(folder.path);
        if (!names) {
            throw InputError(folder.shown, std::strerror(errno));
        }
        return *names;
    }

    void CheckDirectory() {
        const auto status = folder.root == nullptr ? std::nullopt : folder.root->Status(folder.path);
        if (status) {
            CheckMode(*status, folder.shown, "", host.findings);
        }
    }

    void CheckFile(const posix::Descriptor& file, const PluginDescription& plugin) {
        struct stat status {};
        if (::fstat(file.Get(), &status) == 0) {
            CheckMode(status, plugin.path, plugin.name, host.findings);
        }
    }

    // ---- The debug configuration

    void ReadDebugEntries() {
        if (options.debugConfiguration) {
            debugPath = *options.debugConfiguration;
            ParseDebugEntries(ReadGivenFile(debugPath));
            if (debugPath != "-") {
                CheckGivenMode(debugPath);
                const std::string directory = std::filesystem::path(debugPath).parent_path().string();
                CheckGivenMode(directory.empty() ? "." : directory);
            }
        } else if (root) {
            debugPath = paths::kDebugConfiguration;
            const std::optional<std::string> content = root->ReadFile(debugPath, kLongestFile);
            if (!content && !IsMissing(errno) && errno != ENXIO && errno != EISDIR) {
                throw InputError(debugPath, std::strerror(errno));
            }
            if (content) {
                ParseDebugEntries(*content);
                for (const std::string& path : {debugPath, std::filesystem::path(debugPath).parent_path().string()}) {
                    if (const auto status = root->Status(path)) {
                        CheckMode(*status, path, "", host.findings);
                    }
                }
            }
        }
    }

    void CheckGivenMode(const std::string& path) {
        struct stat status {};
        if (::stat(path.c_str(), &status) == 0) {
            CheckMode(status, path, "", host.findings);
        }
    }

    void ParseDebugEntries(const std::string& content) {
        std::istringstream input(content);
        debug = ParseDebugConfiguration(input);
        for (const DebugConfiguration::SkippedLine& line : debug.skipped) {
            const std::string reason = line.misuse.empty() ? "malformed debug entry" : line.misuse;
            Add("debug-line", Severity::Warning, {debugPath, line.number, 0}, "", reason + ": " + line.text);
        }
    }

    // Those of that name, or all.
    void AddDebugPlugins(const std::optional<std::string>& name) {
        for (const PluginDescription& entry : debug.entries) {
            if (!name || entry.name == *name) {
                AddPlugin(entry).place = {debugPath, entry.line, 0};
            }
        }
    }

    // ---- Plugin files

    BootPlugin& AddPlugin(PluginDescription description) {
        const std::string path = description.path;
        host.plugins.emplace_back(std::move(description));
        host.plugins.back().place.file = path;
        return host.plugins.back();
    }

    void ProcessFile(const std::string& fileName) {
        const std::string relative = std::filesystem::path(fileName).relative_path().string();
        const std::string path = Joined(folder.path, relative);
        const std::string shown = Joined(folder.shown, relative);
        const std::optional<PluginFileName> parsed = ParsePluginFileName(fileName);
        if (!parsed) {
            Add("ignored-file", Severity::Warning, {shown, 0, 0}, "", "lofter ignores it: unspecified type");
        } else if (parsed->kind == PluginKind::Json) {
            ReadJson(parsed->plugin, path, shown);
        } else if (parsed->kind == PluginKind::Native) {
            ReadNative(parsed->plugin, path, shown);
        } else if (parsed->kind == PluginKind::Debug) {
            const std::size_t before = host.plugins.size();
            AddDebugPlugins(parsed->plugin);
            if (host.plugins.size() == before) {
                Add("ignored-file", Severity::Warning, {shown, 0, 0}, "",
                    "lofter ignores it: no line of the debug configuration has the name " + parsed->plugin);
            }
        } else {
            Add("ignored-file", Severity::Warning, {shown, 0, 0}, "",
                "lofter ignores it: unknown type (" + parsed->extension + ")");
        }
    }

    posix::Descriptor OpenPluginFile(const std::string& path) const {
        if (folder.root == nullptr) {
            errno = ENOENT;
            return {};
        }
        return folder.root->OpenFile(path);
    }

    // A plugin whose file is not to be had.
    void AddUnreadable(PluginDescription plugin, const std::string& reason) {
        RejectPlugin(plugin, reason);
        Add("unreadable", Severity::Error, {plugin.path, 0, 0}, plugin.name, reason);
        AddPlugin(std::move(plugin));
    }

    void ReadJson(const std::string& name, const std::string& path, const std::string& shown) {
        const posix::Descriptor file = OpenPluginFile(path);
        std::optional<std::string> content = file ? posix::ReadWhole(file, kLongestFile + 1) : std::nullopt;
        if (!file && (errno == ENXIO || errno == EISDIR)) {
            content = "";  // what is no file has no content
        }
        if (!content && !IsMissing(errno)) {
            AddUnreadable({PluginKind::Json, name, shown}, std::string("cannot be read here: ") + std::strerror(errno));
            return;
        }
        if (content && content->size() > kLongestFile) {
            AddUnreadable({PluginKind::Json, name, shown}, "longer than 16 MiB");
            return;
        }
        PluginDescription plugin = DescribeJsonContent(name, shown, content);
        if (file) {
            CheckFile(file, plugin);
        }
        FindInJson(plugin, content);
        AddPlugin(std::move(plugin));
    }

    void FindInJson(const PluginDescription& plugin, const std::optional<std::string>& content) {
        if (plugin.failure && !content) {
            Add("unreadable", Severity::Error, {plugin.path, 0, 0}, plugin.name, ReasonOf(plugin));
            return;
        }
        if (plugin.failure) {
            const JsonRejection rejection = LocateRejection(*content, ReasonOf(plugin));
            Add("unreadable", Severity::Error, PlaceIn(plugin, rejection.position), plugin.name, rejection.text);
            if (!rejection.isDocument) {
                return;
            }
        }
        const JsonPart parts = FindJsonParts(*content);
        Add(FindUnknownMembers(plugin, parts));
        if (const JsonPart* const operations = parts.Member("operations"); !plugin.failure && operations != nullptr) {
            CheckCommands(plugin, plugin.startCommands, operations->Member("start"));
            CheckCommands(plugin, plugin.hostProfileCommands, operations->Member("apply_host_profile"));
        }
        if (const JsonPart* const metadata = parts.Member("metadata"); metadata != nullptr) {
            if (const JsonPart* const release = metadata->Member("plugin_version"); release != nullptr) {
                releasePlaces[host.plugins.size()] = PlaceIn(plugin, release->position);
            }
        }
    }

    void CheckCommands(const PluginDescription& plugin, const std::vector<std::string>& lines, const JsonPart* parts) {
        for (std::size_t index = 0; parts != nullptr && index < std::min(lines.size(), parts->parts.size()); ++index) {
            const Place place = PlaceIn(plugin, parts->parts[index].position);
            if (const std::optional<Finding> finding = commands.Check(lines[index], plugin.name, place)) {
                host.findings.push_back(*finding);
            }
        }
    }

    void ReadNative(const std::string& name, const std::string& path, const std::string& shown) {
        posix::Descriptor file = OpenPluginFile(path);
        if (!file) {
            const bool isMissing = IsMissing(errno);
            const std::string reason = std::strerror(isMissing ? ENOENT : errno);
            AddUnreadable({PluginKind::Native, name, shown},
                          (isMissing ? "cannot open shared object file: " : "cannot be read here: ") + reason);
            return;
        }
        CheckFile(file, {PluginKind::Native, name, shown});
        NativeFile native = ReadNativeFile(name, shown, std::move(file));
        AddPlugin(native.description);
        natives.push_back(
            {host.plugins.size() - 1, std::move(native), (std::filesystem::path(path).parent_path() / "").string()});
    }

    // ---- What can be said once all files were read

    // The machine that objects have to be for: that of the program that runs their operations, or else that of most;
    // nothing when there are as many of another.
    std::optional<ElfMachine> ExpectedMachine() const {
        if (root) {
            const posix::Descriptor runner = root->OpenFile(paths::kNativeExecutor);
            const std::optional<ElfMachine> machine = runner ? ReadElfMachine(runner) : std::nullopt;
            if (machine) {
                return machine;
            }
        }
        std::map<ElfMachine, std::size_t> counts;
        for (const PendingNative& native : natives) {
            if (native.file.machine) {
                ++counts[*native.file.machine];
            }
        }
        std::optional<ElfMachine> most;
        std::size_t largest = 0;
        for (const auto& [machine, count] : counts) {
            most = count == largest ? std::nullopt : count > largest ? std::optional(machine) : most;
            largest = std::max(largest, count);
        }
        return most;
    }

    void SettleMachines() {
        const std::optional<ElfMachine> expected = ExpectedMachine();
        for (PendingNative& native : natives) {
            PluginDescription& plugin = host.plugins[native.plugin].description;
            if (native.file.machine && expected && *native.file.machine != *expected) {
                Refuse(plugin, "wrong-machine",
                       "an object for " + ShownMachine(*native.file.machine) + ", and the host's are for " +
                           ShownMachine(*expected));
                continue;
            }
            if (!native.file.rule.empty()) {
                Add(native.file.rule.c_str(), Severity::Error, {plugin.path, 0, 0}, plugin.name, native.file.fault);
            }
            if (libraries && native.file.machine) {
                FindMissingLibraries(native, plugin);
            }
        }
    }

    void FindMissingLibraries(const PendingNative& native, PluginDescription& plugin) {
        const Libraries::Needs needs{*native.file.machine, native.file.neededLibraries, native.file.searchPaths,
                                     native.directory, folder.root};
        for (const std::string& library : libraries->FindMissing(needs)) {
            Refuse(plugin, "missing-library", "the host does not have the library " + library);
        }
    }

    void Refuse(PluginDescription& plugin, const char* rule, const std::string& reason) {
        Add(rule, Severity::Error, {plugin.path, 0, 0}, plugin.name, reason);
        if (!plugin.failure) {
            RejectPlugin(plugin, reason);
        }
    }

    void AdmitAll() {
        const AdmissionRules rules{options.disabledPlugins, options.bootFlags};
        std::set<std::string> runOnce = options.runOnce;
        for (PluginIndex index = 0; index < host.plugins.size(); ++index) {
            BootPlugin& plugin = host.plugins[index];
            if (plugin.description.failure) {
                plugin.keptOutBy = ReasonOf(plugin.description);
            } else if (plugin.description.kind != PluginKind::Debug) {
                plugin.keptOutBy = TextOf(Admit(plugin.description, rules));
                CheckRunOnce(plugin, index, runOnce);
            }
        }
    }

    // A key is looked up as it is and added as a record holds it; only what was let in comes that far.
    void CheckRunOnce(BootPlugin& plugin, PluginIndex index, std::set<std::string>& runOnce) {
        if (!plugin.description.runOnce) {
            return;
        }
        const std::string key = RunOnceKey(plugin.description);
        const std::string recorded = RecordedKey(key);
        if (recorded != key || key.empty()) {
            const auto place = releasePlaces.find(index);
            Add("run-once-key", Severity::Warning, place == releasePlaces.end() ? plugin.place : place->second,
                plugin.Name(), "runs at every boot: the record cannot hold the key \"" + key + "\"");
        }
        if (!plugin.Runs()) {
            return;
        }
        if (runOnce.contains(key)) {
            plugin.keptOutBy = "version " + plugin.description.release + " has already been run";
        } else {
            runOnce.insert(recorded);
        }
    }

    const InputOptions& options;
    const std::optional<HostRoot> root;
    const std::optional<HostRoot> givenFolder;
    const HostCommands commands;
    std::optional<Libraries> libraries;
    Folder folder;
    std::string debugPath;
    DebugConfiguration debug;
    std::vector<PendingNative> natives;
    std::map<PluginIndex, Place> releasePlaces;  // where plugins say what release they are
    Host host;
};

}  // namespace

Host ReadHost(const InputOptions& options) {
    return HostReader(options).Read();
}

}  // namespace lofter::analyze
