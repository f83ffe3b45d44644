#include "plugins/NativePlugin.h"

#include <array>
#include <cerrno>
#include <memory>

#include <sys/wait.h>
#include <unistd.h>

#include "base/Exception.h"
#include "base/Paths.h"
#include "krxuser/spawn.h"

namespace lofter {

namespace {

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

void NativePlugin::StartPlugin() {
    RunOperation("start");
}

void NativePlugin::ApplyHostProfile() {
    if (!HasApplyHostProfile()) {
        throw NotImplementedException("NativePlugin::ApplyHostProfile");
    }
    RunOperation("apply_host_profile");
}

void NativePlugin::RunOperation(const std::string& method) const {
    OperationCall(Name(), Description().path, method).Run();
}

}  // namespace lofter
