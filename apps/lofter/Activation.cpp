#include "Activation.h"

#include <exception>
#include <filesystem>

#include <sys/time.h>

#include "base/Exception.h"
#include "base/GraphLock.h"
#include "base/KernelBootLog.h"
#include "base/Logging.h"
#include "base/Paths.h"

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

void CallStart(Plugin& plugin) {
    Log_Level(kInfo, "executing start plugin: %s\n", plugin.Name().c_str());
    plugin.StartPlugin();
}

void CallApplyHostProfile(Plugin& plugin) {
    Log_Level(kInfo, "executing host profile plugin: %s\n", plugin.Name().c_str());
    plugin.ApplyHostProfile();
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

bool Activation::HostProfilePresent() {
    GraphLock lock;
    if (!hostProfilePresent) {
        hostProfilePresent = FileExists(paths::kHostProfile) || FileExists(paths::kCompressedHostProfile);
    }
    return *hostProfilePresent;
}

Activation::Failure Activation::Execute(Plugin& plugin) {
    if (!settings.method.empty()) {
        return InvokeMethod(plugin, settings.method) ? Failure() : Failure("Method invocation failed");
    }
    if (plugin.HasApplyHostProfile() && HostProfilePresent()) {
        CallApplyHostProfile(plugin);
    } else {
        CallStart(plugin);
    }
    return std::nullopt;
}

Activation::Failure Activation::ExecuteContained(Plugin& plugin) {
    try {
        return Execute(plugin);
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

void Activation::Activate(Plugin& plugin) {
    const char* const pluginName = plugin.Name().c_str();

    plugin.SetStartTime(Now());
    if (!runsOperator.MayExecute(plugin.Name())) {
        return;
    }
    if (settings.trace) {
        Log_Level(kInfo, "starting execution of plugin: %s\n", pluginName);
    }
    KernelBootLog("Activating Lofter plugin %s.", pluginName);

    const Failure failure = ExecuteContained(plugin);

    plugin.SetEndTime(Now());
    if (settings.trace) {
        Log_Level(kInfo, "completed execution of plugin: %s (took %lld us)\n", pluginName,
                  static_cast<long long>(plugin.ElapsedMicroseconds()));
    }
    if (failure) {
        KernelBootLog("Lofter plugin %s activation failed: %s", pluginName, failure->c_str());
    } else {
        KernelBootLog("Lofter plugin %s activated.", pluginName);
    }
}

}  // namespace lofter
