#include "support/SpawnControl.h"

#include <utility>

// The linker sends every use of a call X to __wrap_X, and every use of __real_X to the call.
extern "C" {
KrxuserStatus __real_KrxuserCompat_SpawnFileActionsInit(KrxuserCompatSpawnFileActions**, int);
KrxuserStatus __real_KrxuserCompat_SpawnFileActionsAddDup2(KrxuserCompatSpawnFileActions*, int, int);
KrxuserStatus __real_KrxuserCompat_Spawn(pid_t*, const char*, const KrxuserCompatSpawnFileActions*,
                                         const KrxuserCompatSpawnAttributes*, char* const[], char* const[]);
void __real_KrxuserCompat_SpawnFileActionsDestroy(KrxuserCompatSpawnFileActions*);

KrxuserStatus __wrap_KrxuserCompat_SpawnFileActionsInit(KrxuserCompatSpawnFileActions**, int);
KrxuserStatus __wrap_KrxuserCompat_SpawnFileActionsAddDup2(KrxuserCompatSpawnFileActions*, int, int);
KrxuserStatus __wrap_KrxuserCompat_Spawn(pid_t*, const char*, const KrxuserCompatSpawnFileActions*,
                                         const KrxuserCompatSpawnAttributes*, char* const[], char* const[]);
void __wrap_KrxuserCompat_SpawnFileActionsDestroy(KrxuserCompatSpawnFileActions*);
}

namespace lofter::test {

namespace {

SpawnControl* armed = nullptr;

std::vector<std::string> Texts(char* const vector[]) {
    std::vector<std::string> texts;
    for (; *vector != nullptr; ++vector) {
        texts.emplace_back(*vector);
    }
    return texts;
}

}  // namespace

SpawnControl::SpawnControl() {
    armed = this;
}

SpawnControl::~SpawnControl() {
    armed = nullptr;
}

std::vector<SpawnControl::Request> SpawnControl::Requests() const {
    const std::lock_guard guard(mutex);
    return requests;
}

int SpawnControl::LiveFileActions() const {
    const std::lock_guard guard(mutex);
    return liveFileActions;
}

// What the wrapped calls know of the control.
struct SpawnControl::Calls {
    static void Count(int change) {
        const std::lock_guard guard(armed->mutex);
        armed->liveFileActions += change;
    }

    static void Record(Request request) {
        const std::lock_guard guard(armed->mutex);
        armed->requests.push_back(std::move(request));
    }
};

}  // namespace lofter::test

using lofter::test::armed;
using lofter::test::SpawnControl;

KrxuserStatus __wrap_KrxuserCompat_SpawnFileActionsInit(KrxuserCompatSpawnFileActions** actions, int capacity) {
    if (armed != nullptr && armed->initStatus != 0) {
        return armed->initStatus;
    }
    const KrxuserStatus status = __real_KrxuserCompat_SpawnFileActionsInit(actions, capacity);
    if (armed != nullptr && status == 0) {
        SpawnControl::Calls::Count(1);
    }
    return status;
}

KrxuserStatus __wrap_KrxuserCompat_SpawnFileActionsAddDup2(KrxuserCompatSpawnFileActions* actions, int source,
                                                           int target) {
    if (armed != nullptr && armed->addDup2Status != 0 && target == armed->failingStream) {
        return armed->addDup2Status;
    }
    return __real_KrxuserCompat_SpawnFileActionsAddDup2(actions, source, target);
}

KrxuserStatus __wrap_KrxuserCompat_Spawn(pid_t* process, const char* path, const KrxuserCompatSpawnFileActions* actions,
                                         const KrxuserCompatSpawnAttributes* attributes, char* const arguments[],
                                         char* const environment[]) {
    if (armed == nullptr) {
        return __real_KrxuserCompat_Spawn(process, path, actions, attributes, arguments, environment);
    }
    if (armed->spawnStatus != 0) {
        return armed->spawnStatus;
    }
    const char* program = armed->program.empty() ? path : armed->program.c_str();
    const KrxuserStatus status =
        __real_KrxuserCompat_Spawn(process, program, actions, attributes, arguments, environment);
    SpawnControl::Calls::Record({path, lofter::test::Texts(arguments), lofter::test::Texts(environment),
                                 attributes != nullptr, status == 0 ? *process : -1});
    return status;
}

void __wrap_KrxuserCompat_SpawnFileActionsDestroy(KrxuserCompatSpawnFileActions* actions) {
    if (armed != nullptr) {
        SpawnControl::Calls::Count(-1);
    }
    __real_KrxuserCompat_SpawnFileActionsDestroy(actions);
}
