#include "CommandLine.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include <boost/lexical_cast/try_lexical_convert.hpp>
#include <getopt.h>

#include "base/Logging.h"
#include "base/Paths.h"

namespace lofter {

namespace {

// Two of the options, --run-once and --plugin-directory, are left out on purpose.
constexpr char kUsage[] =
    " -h,--help                  display this help message\n"
    "    --init                  run in init mode (this will cause tssyslog to be\n"
    "                            launched, and the start method to be invoked on the\n"
    "                            plugins)\n"
    "    --invoke                run a particular method from the plugin's function\n"
    "                            pointer table (requires --method)\n"
    "    --method=<method>       specifies the method identifier\n"
    "    --plugin=<plugin>[,<plugin>]\n"
    "                            comma separated list of plugins to load (note that \n"
    "                            this will prevent the loading of all plugins, and \n"
    "                            only the specified plugins will be loaded), which\n"
    "                            are specified by the filename (basename of the\n"
    "                            plugin path)\n"
    "    --trace                 trace execution of the plugins for debugging \n"
    "                            purposes\n"
    "    --verbose               logs plugin execution to syslog to aid in debugging\n"
    "    --randomize[=seed]      evaluate the execution order randomizing the\n"
    "                            order of independent jobs. Only useful for testing.\n"
    "                            You can specify an optional seed for reproducibility\n"
    "    --parallel              evaluate the execution order accounting for\n"
    "                            parallelism between jobs which are independent\n"
    "    --plugin-flags=<flag>[,<flag>]\n"
    "                            specify flags for conditional execution of plugins.\n"
    "                            If there are multiple occurences of this option, the\n"
    "                            last one is the only one that counts. See plugin\n"
    "                            documentation for which plugins support flags.\n"
    "    --interactive           prompts before performing the action, allowing\n"
    "                            plugins to be skipped, executed, or to fall to a\n"
    "                            troubleshooting shell\n"
    "    --disable-plugins=<plugin>[,<plugin>]\n"
    "                            a comma separated list of plugins to be disabled\n"
    "                            during execution, which are specified by the\n"
    "                            filename (basename of the plugin path)\n"
    "    --dump-dependency-tree[=<path>]\n"
    "                            dump plugin dependency tree information to the file\n"
    "                            specified by path.  If path is not specified, the\n"
    "                            information will be dumped to the console\n"
    "    --interactive-mode-requires=<plugin>[,<plugin>]\n"
    "                            interactive mode requires the specified plugins to\n"
    "                            be loaded before it can be activated\n"
    "    --daemon=[wait|nowait]\n"
    "                            run daemon operations (requires --method). The\n"
    "                            optional wait mode specifies whether lofter\n"
    "                            should wait for daemon start/stop to complete.\n"
    "                            Defaults to 'nowait' if unspecified.\n"
    "    --daemon-wait-timeout=timeoutInSecs\n"
    "                            specify how long lofter should wait for daemons\n"
    "                            to start/stop, before moving on to the next one.\n"
    "                            The default is 40 secs.\n";

enum Option : int {
    kHelp = 'h',
    kInit = 256,
    kPluginFlags,
    kTrace,
    kInvoke,
    kMethod,
    kPlugin,
    kVerbose,
    kParallel,
    kRandomize,
    kRunOnce,
    kInteractive,
    kDisablePlugins,
    kPluginDirectory,
    kDumpDependencyTree,
    kInteractiveModeRequires,
    kDaemon,
    kDaemonWaitTimeout,
};

constexpr option kLongOptions[] = {
    {"help", no_argument, nullptr, kHelp},
    {"init", no_argument, nullptr, kInit},
    {"plugin-flags", required_argument, nullptr, kPluginFlags},
    {"trace", no_argument, nullptr, kTrace},
    {"invoke", no_argument, nullptr, kInvoke},
    {"method", required_argument, nullptr, kMethod},
    {"plugin", required_argument, nullptr, kPlugin},
    {"verbose", no_argument, nullptr, kVerbose},
    {"parallel", no_argument, nullptr, kParallel},
    {"randomize", optional_argument, nullptr, kRandomize},
    {"run-once", required_argument, nullptr, kRunOnce},
    {"interactive", no_argument, nullptr, kInteractive},
    {"disable-plugins", required_argument, nullptr, kDisablePlugins},
    {"plugin-directory", required_argument, nullptr, kPluginDirectory},
    {"dump-dependency-tree", optional_argument, nullptr, kDumpDependencyTree},
    {"interactive-mode-requires", required_argument, nullptr, kInteractiveModeRequires},
    {"daemon", optional_argument, nullptr, kDaemon},
    {"daemon-wait-timeout", required_argument, nullptr, kDaemonWaitTimeout},
    {nullptr, 0, nullptr, 0},
};

// Split on commas only; empty tokens are dropped, blanks are kept.
std::vector<std::string> SplitList(std::string_view list) {
    std::vector<std::string> tokens;
    while (!list.empty()) {
        const std::size_t length = std::min(list.find(','), list.size());
        if (length > 0) {
            tokens.emplace_back(list.substr(0, length));
        }
        list.remove_prefix(std::min(length + 1, list.size()));
    }
    return tokens;
}

void Append(std::vector<std::string>& target, const char* list) {
    const std::vector<std::string> tokens = SplitList(list);
    target.insert(target.end(), tokens.begin(), tokens.end());
}

void Insert(std::set<std::string>& target, const char* list) {
    const std::vector<std::string> tokens = SplitList(list);
    target.insert(tokens.begin(), tokens.end());
}

// Stores the number if the whole text is one that fits, and silently keeps the old value otherwise. "-1" for an
// unsigned number is its two's complement; kept on purpose.
template <typename Number, typename Target>
void StoreNumber(Target& target, const char* text) {
    Number number{};
    if (boost::conversion::try_lexical_convert(text, number)) {
        target = number;
    }
}

// Applies one option. Returns false for one that the parser did not accept.
bool Apply(int code, RunOptions& options, Settings& settings) {
    switch (code) {
        case kInit:
            options.init = true;
            break;
        case kPluginFlags:
            options.pluginFlags.clear();
            Insert(options.pluginFlags, optarg);
            break;
        case kTrace:
            settings.trace = true;
            break;
        case kInvoke:
            settings.invoke = true;
            break;
        case kMethod:
            settings.method = optarg;
            break;
        case kPlugin:
            Append(options.plugins, optarg);
            break;
        case kVerbose:
            settings.verbose = true;
            break;
        case kParallel:
            settings.parallel = true;
            settings.interactive = false;
            break;
        case kRandomize:
            settings.randomize = true;
            if (optarg != nullptr) {
                StoreNumber<std::int32_t>(settings.randomSeed, optarg);
            }
            break;
        case kRunOnce:
            Insert(options.runOnce, optarg);
            break;
        case kInteractive:
            settings.interactive = true;
            settings.parallel = false;
            break;
        case kDisablePlugins:
            Append(settings.disabledPlugins, optarg);
            break;
        case kPluginDirectory:
            options.pluginDirectory = optarg;
            break;
        case kDumpDependencyTree:
            options.dump = true;
            if (optarg != nullptr) {
                options.dumpPath = optarg;
            }
            break;
        case kInteractiveModeRequires:
            Append(settings.interactiveModeRequirements, optarg);
            break;
        case kDaemon:
            options.daemon = true;
            if (optarg != nullptr) {
                settings.daemonWait = std::string_view(optarg) == "wait";
            }
            break;
        case kDaemonWaitTimeout:
            StoreNumber<std::uint32_t>(settings.daemonWaitTimeout, optarg);
            break;
        default:
            return false;
    }
    return true;
}

// The exit status for a combination of options that makes no sense.
std::optional<int> CheckCombination(const RunOptions& options, const Settings& settings) {
    const bool isDaemonMethod = settings.method == "start" || settings.method == "stop";
    if (options.daemon &&
        (settings.interactive || settings.invoke || options.init || !options.plugins.empty() || !isDaemonMethod)) {
        Log_Level(kError, "Invalid combination of options passed. Exiting\n");
        return EXIT_FAILURE;
    }
    if (settings.invoke && (settings.method.empty() || options.plugins.empty())) {
        Log_Level(kError, "invoke requires a method and plugin specified\n");
        std::fputs(kUsage, stdout);
        return EXIT_FAILURE;
    }
    return std::nullopt;
}

}  // namespace

CommandLine ParseCommandLine(int argc, char** argv, Settings& settings) {
    CommandLine commandLine;
    commandLine.options.pluginDirectory = paths::kPluginDirectory;

    optind = 0;
    for (int code = 0; (code = getopt_long(argc, argv, "h", kLongOptions, nullptr)) != -1;) {
        if (code == kHelp) {
            std::fputs(kUsage, stdout);
            commandLine.exitStatus = EXIT_SUCCESS;
            return commandLine;
        }
        if (!Apply(code, commandLine.options, settings)) {
            std::fprintf(stderr, "usage: %s --help for usage information\n", argv[0]);
            commandLine.exitStatus = EXIT_FAILURE;
            return commandLine;
        }
    }
    commandLine.exitStatus = CheckCombination(commandLine.options, settings);
    return commandLine;
}

}  // namespace lofter
