#include "hopper/DaemonPlugin.h"

#include "base/Exception.h"
#include "base/KernelBootLog.h"
#include "base/Logging.h"
#include "krxctl/KernelProgressScreenImpl.h"

namespace lofter {

DaemonPlugin::DaemonPlugin(const std::string& pluginName, std::uint32_t startPriority, std::uint32_t pluginKind,
                           const CommandSettings& settings, Activator& pluginActivator)
    : Plugin(PluginDescription(PluginKind::Daemon, pluginName), pluginActivator, pluginKind),
      priority(startPriority),
      commandSettings(settings) {}

void DaemonPlugin::Start() {
    KrxCtl::System::KernelProgressScreenImpl progress;
    Contain([&] { progress.ProgressText("Starting service " + Name()); });
    Plugin::Start();
    Contain([&] { progress.Step(); });
}

void DaemonPlugin::Stop() {
    KernelBootLog("Deactivating Daemon %s.", Name().c_str());
    Log_Level(kInfo, "executing stop for daemon %s.\n", Name().c_str());
    try {
        StopDaemon();
        KernelBootLog("Daemon %s deactivated.", Name().c_str());
    } catch (const std::exception& failure) {
        KernelBootLog("Daemon %s deactivation failed: %s", Name().c_str(), failure.what());
    }
}

void DaemonPlugin::StartPlugin() {
    try {
        Run(kStart);
        daemonState = DaemonState::Started;
        Log_Level(kInfo, "%s started.\n", Name().c_str());
    } catch (const std::exception& failure) {
        daemonState = DaemonState::StartFailed;
        Log_Level(kWarning, "Lofter failed to start: %s reason: %s\n", Name().c_str(), failure.what());
        throw MethodFailedException("start", Name(), failure.what());
    }
}

void DaemonPlugin::StopDaemon() {
    try {
        Run(kStop);
        daemonState = DaemonState::Stopped;
        Log_Level(kInfo, "%s stopped.\n", Name().c_str());
    } catch (const std::exception& failure) {
        Log_Level(kWarning, "Lofter failed to stop: %s reason: %s\n", Name().c_str(), failure.what());
        throw;
    }
}

void DaemonPlugin::ApplyHostProfile() {
    throw NotImplementedException("DaemonPlugin::ApplyHostProfile");
}

void DaemonPlugin::Restart() {
    throw NotImplementedException("DaemonPlugin::Restart");
}

void DaemonPlugin::SSLReset() {
    throw NotImplementedException("DaemonPlugin::SSLReset");
}

void DaemonPlugin::Run(Operation operation) const {
    const auto found = operations.find(operation);
    if (found == operations.end()) {
        throw Exception(Name() + " Daemon operations are not initialized");
    }
    RunCommand(found->second, commandSettings);
}

}  // namespace lofter
