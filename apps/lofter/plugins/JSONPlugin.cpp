#include "plugins/JSONPlugin.h"

#include <exception>

#include "base/Exception.h"
#include "base/Logging.h"
#include "executor/QorcliExecutor.h"

namespace lofter {

namespace {

constexpr std::int32_t kFirstVersionWithHostProfile = 2;

void SendToExecutor(const std::string& command) {
    QorcliExecutor::Instance()->SendCommand(command);
}

}  // namespace

void JSONPlugin::StartPlugin() {
    RunCommandList("start", Name(), Description().startCommands, SendToExecutor);
}

void JSONPlugin::ApplyHostProfile() {
    if (GetVersion() < kFirstVersionWithHostProfile) {
        // Spelled unlike the other kinds; kept on purpose, it is what operators see.
        throw NotImplementedException("json_plugin::ApplyHostProfile");
    }
    RunCommandList("apply_host_profile", Name(), Description().hostProfileCommands, SendToExecutor);
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
