#include "Activation.h"

#include <cstdint>
#include <exception>
#include <filesystem>
#include <optional>

#include <sys/time.h>

#include "InteractiveMode.h"
#include "KernelBootLog.h"
#include "Logging.h"
#include "Paths.h"
#include "Settings.h"
#include "graph/GraphLock.h"
#include "plugins/Exception.h"
#include "plugins/Plugin.h"

namespace lofter {

namespace {

timeval Now() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return now;
}

bool FileExists(const char* path) {
    std::error_code error;
    return std::filesystem::exists(path, error);
}

// Looked up once per process, under the program-wide lock.
bool HostProfilePresent() {
    static bool isChecked = false;
    static bool isPresent = false;
    GraphLock lock;
    if (!isChecked) {
        isPresent = FileExists(paths::kHostProfile) || FileExists(paths::kCompressedHostProfile);
        isChecked = true;
    }
    return isPresent;
}

// One for the process: it remembers the terminal as it was in front of the first plugin.
InteractiveMode& OperatorAtConsole() {
    static InteractiveMode mode(Settings::Instance());
    return mode;
}

void CallStart(Plugin& plugin) {
    Log_Level(kInfo, "executing start plugin: %s\n", plugin.Name().c_str());
    plugin.StartPlugin();
}

void CallApplyHostProfile(Plugin& plugin) {
    Log_Level(kInfo, "executing host profile plugin: %s\n", plugin.Name().c_str());
    plugin.ApplyHostProfile();
}

// The text of the failure, if any.
using Failure = std::optional<std::string>;

Failure Execute(Plugin& plugin, const std::string& method) {
    if (!method.empty()) {
        return InvokeMethod(plugin, method) ? Failure() : Failure("Method invocation failed");
    }
    if (plugin.HasApplyHostProfile() && HostProfilePresent()) {
        CallApplyHostProfile(plugin);
    } else {
        CallStart(plugin);
    }
    return std::nullopt;
}

Failure ExecuteContained(Plugin& plugin, const std::string& method) {
    try {
        return Execute(plugin, method);
    } catch (const MethodFailedException& e) {
        Log_Level(kError, "Method invocation failed: %s\n", e.what());
        return e.what();
    } catch (const std::exception& e) {
        Log_Level(kError, "unhandled exception whilst processing %s: %s\n", plugin.Name().c_str(), e.what());
        return e.what();
    } catch (...) {
        Log_Level(kError, "ignoring unknown exception whilst processing %s ...\n", plugin.Name().c_str());
        return "unknown exception";
    }
}

}  // namespace

bool InvokeMethod(Plugin& plugin, const std::string& method) {
    try {
        if (method == "start") {
            CallStart(plugin);
        } else if (method == "apply_host_profile") {
            CallApplyHostProfile(plugin);
        }
        return true;
    } catch (const MethodFailedException& e) {
        Log_Level(kError, "Method invocation failed: %s\n", e.what());
    } catch (const std::exception& e) {
        Log_Level(kError, "unable to invoke method '%s' on plugin '%s': %s\n", method.c_str(), plugin.Name().c_str(),
                  e.what());
    } catch (...) {
        Log_Level(kError, "unknown exception whilst attempting to execute method '%s' on plugin '%s'\n", method.c_str(),
                  plugin.Name().c_str());
    }
    return false;
}

void Plugin::Start() {
    Contain([this] { Activate(); });
}

void Plugin::Activate() {
    Settings& settings = Settings::Instance();
    const char* const pluginName = Name().c_str();

    SetStartTime(Now());
    if (settings.interactive && !OperatorAtConsole().MayExecute(Name())) {
        return;
    }
    if (settings.trace) {
        Log_Level(kInfo, "starting execution of plugin: %s\n", pluginName);
    }
    KernelBootLog("Activating Lofter plugin %s.", pluginName);

    const Failure failure = ExecuteContained(*this, settings.method);

    SetEndTime(Now());
    if (settings.trace) {
        Log_Level(kInfo, "completed execution of plugin: %s (took %lld us)\n", pluginName,
                  static_cast<long long>(ElapsedMicroseconds()));
    }
    if (failure) {
        KernelBootLog("Lofter plugin %s activation failed: %s", pluginName, failure->c_str());
    } else {
        KernelBootLog("Lofter plugin %s activated.", pluginName);
    }
}

}  // namespace lofter
