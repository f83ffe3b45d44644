#include "plugins/NativePlugin.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <memory>

#include <sys/wait.h>
#include <unistd.h>

#include "Paths.h"
#include "krxuser/spawn.h"
#include "plugins/Exception.h"
#include "plugins/SharedObject.h"

namespace lofter {

namespace {

constexpr std::uint32_t kOldestVersion = 1;
constexpr std::uint32_t kNewestVersion = 4;
constexpr std::int32_t kHostProfileVersion = 2;
constexpr std::int32_t kReleaseVersion = 3;

using StringList = const char* const*;

struct Operations {
    void (*start)();
    void (*apply_host_profile)();
};
static_assert(offsetof(Operations, start) == 0);
static_assert(offsetof(Operations, apply_host_profile) == 8);
static_assert(sizeof(Operations) == 16);

template <typename Action>
void ForEach(StringList list, Action action) {
    for (; list != nullptr && *list != nullptr; ++list) {
        action(std::string(*list));
    }
}

struct DestroyFileActions {
    void operator()(KrxuserCompatSpawnFileActions* actions) const { KrxuserCompat_SpawnFileActionsDestroy(actions); }
};
using FileActions = std::unique_ptr<KrxuserCompatSpawnFileActions, DestroyFileActions>;

std::string StatusText(KrxuserStatus status) {
    std::array<char, 512> buffer;
    return KrxuserStatus_CodeToString(status, buffer.data(), buffer.size(), 0);
}

// One call of one operation, in a process of its own.
class OperationCall {
  public:
    OperationCall(std::string plugin, std::string objectPath, std::string operation)
        : name(std::move(plugin)), path(std::move(objectPath)), method(std::move(operation)) {}

    void Run() { Judge(Wait(Spawn())); }

  private:
    [[noreturn]] void Fail(const std::string& reason) const { throw MethodFailedException(method, name, reason); }

    // The operation shares the orchestrator's standard streams.
    FileActions StandardStreams() const {
        constexpr std::array streams{STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO};
        KrxuserCompatSpawnFileActions* made = nullptr;
        if (const KrxuserStatus status = KrxuserCompat_SpawnFileActionsInit(&made, int{streams.size()}); status != 0) {
            Fail("failed to init file actions: " + StatusText(status));
        }
        FileActions actions(made);
        for (const int stream : streams) {
            if (const KrxuserStatus status = KrxuserCompat_SpawnFileActionsAddDup2(made, stream, stream); status != 0) {
                // No separator, kept on purpose: operators match on this text.
                Fail("failed to add dup2 file actions" + StatusText(status));
            }
        }
        return actions;
    }

    pid_t Spawn() {
        const FileActions streams = StandardStreams();
        std::string program = paths::kNativeExecutor;
        char* const arguments[] = {program.data(), path.data(), name.data(), method.data(), nullptr};
        char* const environment[] = {nullptr};
        pid_t process = -1;
        const KrxuserStatus status =
            KrxuserCompat_Spawn(&process, paths::kNativeExecutor, streams.get(), nullptr, arguments, environment);
        if (status != 0) {
            Fail("failed to spawn: " + StatusText(status));
        }
        return process;
    }

    int Wait(pid_t process) const {
        int status = 0;
        while (waitpid(process, &status, 0) == -1) {
            if (errno != EINTR) {
                Fail("failed to read exit status");
            }
        }
        return status;
    }

    void Judge(int status) const {
        if (WIFEXITED(status)) {
            if (WEXITSTATUS(status) != 0) {
                Fail("exited with code " + std::to_string(WEXITSTATUS(status)));
            }
        } else if (WIFSIGNALED(status)) {
            Fail("exited with signal: " + std::to_string(WTERMSIG(status)));
        } else {
            Fail("exited: <unknown failure>");
        }
    }

    std::string name;
    std::string path;
    std::string method;
};

}  // namespace

// The block that a plugin exports: binary interface, so nothing here moves, and the plugin header says the same. It
// comes from outside and may end early, so nothing but the version is read before the version is known, and the members
// of a release only when the version has them.
struct NativePlugin::Metadata {
    std::uint32_t version;
    StringList requiredBarriers;
    StringList providedBarriers;
    // From version 3 on.
    const char* plugin_version;
    unsigned char run_once;
    StringList required_flags;
    StringList disabling_flags;
};

NativePlugin::NativePlugin(const std::string& pluginName, const std::string& objectPath)
    : Plugin(pluginName), path(objectPath) {
    const SharedObject object(path);
    const auto& operations = *static_cast<const Operations*>(object.Symbol("operations"));
    const auto& metadata = *static_cast<const Metadata*>(object.Symbol("metadata"));
    if (metadata.version < kOldestVersion || metadata.version > kNewestVersion) {
        throw InvalidPluginException(path, "Unsupported API version");
    }
    version = static_cast<std::int32_t>(metadata.version);
    hasHostProfileOperation = operations.apply_host_profile != nullptr;

    ForEach(metadata.providedBarriers, [this](const std::string& barrier) { ProvideBarrier(barrier); });
    ForEach(metadata.requiredBarriers, [this](const std::string& barrier) { RequireBarrier(barrier); });
    if (version >= kReleaseVersion) {
        ReadRelease(metadata);
    }
}

void NativePlugin::ReadRelease(const Metadata& metadata) {
    static_assert(offsetof(Metadata, version) == 0);
    static_assert(offsetof(Metadata, requiredBarriers) == 8);
    static_assert(offsetof(Metadata, providedBarriers) == 16);
    static_assert(offsetof(Metadata, plugin_version) == 24);
    static_assert(offsetof(Metadata, run_once) == 32);
    static_assert(offsetof(Metadata, required_flags) == 40);
    static_assert(offsetof(Metadata, disabling_flags) == 48);
    static_assert(sizeof(Metadata) == 56);
    ForEach(metadata.required_flags, [this](const std::string& flag) { required_flags.insert(flag); });
    ForEach(metadata.disabling_flags, [this](const std::string& flag) { disabling_flags.insert(flag); });
    run_once = metadata.run_once != 0;
    if (metadata.plugin_version != nullptr) {
        plugin_version = metadata.plugin_version;
    }
}

void NativePlugin::StartPlugin() {
    RunOperation("start");
}

bool NativePlugin::HasApplyHostProfile() const {
    return version >= kHostProfileVersion && hasHostProfileOperation;
}

void NativePlugin::ApplyHostProfile() {
    if (!HasApplyHostProfile()) {
        throw NotImplementedException("NativePlugin::ApplyHostProfile");
    }
    RunOperation("apply_host_profile");
}

void NativePlugin::RunOperation(const std::string& method) const {
    OperationCall(Name(), path, method).Run();
}

}  // namespace lofter
