#include "krxuser/spawn.h"

#include <cerrno>
#include <cstdio>
#include <memory>
#include <new>
#include <system_error>

#include "Spawn.h"

// Statuses are error numbers of the system.
struct KrxuserCompatSpawnFileActions {
    explicit KrxuserCompatSpawnFileActions(int capacity) : room(capacity) {}

    platform::SpawnFileActions actions;
    int room;
};

KrxuserStatus KrxuserCompat_SpawnFileActionsInit(KrxuserCompatSpawnFileActions** actions, int capacity) {
    if (actions == nullptr || capacity < 0) {
        return EINVAL;
    }
    *actions = new (std::nothrow) KrxuserCompatSpawnFileActions(capacity);
    return *actions == nullptr ? ENOMEM : 0;
}

KrxuserStatus KrxuserCompat_SpawnFileActionsAddDup2(KrxuserCompatSpawnFileActions* actions, int source, int target) {
    if (source < 0 || target < 0) {
        return EBADF;
    }
    if (actions->room == 0) {
        return ENOSPC;
    }
    const int status = actions->actions.AddDup2(source, target);
    if (status == 0) {
        --actions->room;
    }
    return status;
}

KrxuserStatus KrxuserCompat_Spawn(pid_t* process, const char* path, const KrxuserCompatSpawnFileActions* actions,
                                  const KrxuserCompatSpawnAttributes* attributes, char* const arguments[],
                                  char* const environment[]) {
    if (attributes != nullptr) {
        return EINVAL;
    }
    const platform::SpawnAttributes cleanSignals;
    return ::posix_spawn(process, path, actions == nullptr ? nullptr : actions->actions.Get(), cleanSignals.Get(),
                         arguments, environment);
}

void KrxuserCompat_SpawnFileActionsDestroy(KrxuserCompatSpawnFileActions* actions) {
    const std::unique_ptr<KrxuserCompatSpawnFileActions> destroyed(actions);
}

const char* KrxuserStatus_CodeToString(KrxuserStatus status, char* buffer, std::size_t size, unsigned /*flags*/) {
    std::snprintf(buffer, size, "%s", std::generic_category().message(status).c_str());
    return buffer;
}
