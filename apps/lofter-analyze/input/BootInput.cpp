#include "input/BootInput.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/Paths.h"
#include "input/DotFile.h"
#include "input/Errors.h"
#include "input/GivenFile.h"
#include "input/Host.h"
#include "input/HostRoot.h"
#include "input/LineWarnings.h"
#include "input/LogMatch.h"
#include "plugins/description/Admission.h"

namespace lofter::analyze {

namespace {

// Far beyond the log of a hundred thousand plugins.
constexpr std::size_t kLongestLog = std::size_t{256} * 1024 * 1024;

// Of these findings, each is about something that was lost.
bool IsLoss(const Finding& finding) {
    return finding.rule == "unreadable" || finding.rule == "native-interface" || finding.rule == "wrong-machine" ||
           finding.rule == "missing-library" || finding.rule == "debug-line";
}

void WarnOfLosses(const std::vector<Finding>& findings, std::ostream& warnings) {
    for (const Finding& finding : findings) {
        if (IsLoss(finding)) {
            std::string file = finding.place.file;
            for (const int number : {finding.place.line, finding.place.column}) {
                file += number > 0 ? ':' + std::to_string(number) : "";
            }
            LineWarnings(file, warnings).AddWhole(finding.text);
        }
    }
}

// A dump says no flags, files or releases, so that of the rules for admission only that about names can be asked.
std::vector<BootPlugin> ReadGraph(const InputOptions& options, std::ostream& warnings) {
    const std::string shownName = ShownInput(*options.graph);
    std::vector<BootPlugin> plugins = ParseDotFile(ReadGivenFile(*options.graph), shownName, warnings);
    if (!options.plugins.empty() || !options.bootFlags.empty() || !options.runOnce.empty()) {
        LineWarnings(shownName, warnings)
            .AddWhole("--plugin, --plugin-flags and --run-once are those of the dump, whatever is given");
    }
    const AdmissionRules rules{options.disabledPlugins, {}};
    for (BootPlugin& plugin : plugins) {
        if (plugin.Runs() && Admit(plugin.description, rules).isDisabled) {
            plugin.keptOutBy = "disabled by --disable-plugins";
        }
    }
    return plugins;
}

std::optional<std::string> ReadRootsLog(const InputOptions& options) {
    const std::optional<HostRoot> root = OpenRoot(options);
    if (!root) {
        return std::nullopt;
    }
    std::optional<std::string> content = root->ReadFile(paths::kProfilingLog, kLongestLog);
    if (!content && errno != ENOENT && errno != ENOTDIR) {
        throw InputError(paths::kProfilingLog, std::strerror(errno));
    }
    return content;
}

}  // namespace

std::string ShownInput(const std::string& path) {
    return path == "-" ? "standard input" : path;
}

InputPlugins ReadPlugins(const InputOptions& options, std::ostream& warnings) {
    if (options.graph) {
        return {ReadGraph(options, warnings), {}};
    }
    Host host = ReadHost(options);
    WarnOfLosses(host.findings, warnings);
    return {std::move(host.plugins), std::move(host.findings)};
}

std::optional<LoggedBoot> ReadGivenLog(const std::string& path, std::ostream& warnings) {
    return ParseProfilingLog(ReadGivenFile(path), ShownInput(path), warnings);
}

Boot WithLog(std::vector<BootPlugin> plugins, const InputOptions& options, std::ostream& warnings) {
    const std::string shownName = options.log ? ShownInput(*options.log) : paths::kProfilingLog;
    std::optional<LoggedBoot> log;
    if (options.log) {
        log = ReadGivenLog(*options.log, warnings);
    } else if (const std::optional<std::string> content = ReadRootsLog(options)) {
        log = ParseProfilingLog(*content, shownName, warnings);
    } else {
        return MakeBoot(std::move(plugins), std::nullopt);
    }
    if (!log) {
        LineWarnings(shownName, warnings).AddWhole("holds no boot");
        return MakeBoot(std::move(plugins), std::nullopt);
    }
    const NodeOrder order = options.graph ? NodeOrder::OfPlugins : NodeOrder::OfLog;
    return MakeBoot(MatchLog(std::move(plugins), *log, order, shownName, warnings), log->run);
}

Boot ReadBoot(const InputOptions& options, std::ostream& warnings) {
    return WithLog(ReadPlugins(options, warnings).plugins, options, warnings);
}

}  // namespace lofter::analyze
