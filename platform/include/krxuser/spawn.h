// Process creation of the user-space compatibility library. Every operation returns a status that is 0 on success.
#pragma once

#include <cstddef>

#include <sys/types.h>

extern "C" {

using KrxuserStatus = int;

struct KrxuserCompatSpawnFileActions;
struct KrxuserCompatSpawnAttributes;

// Makes an empty list with room for `capacity` actions; release it with KrxuserCompat_SpawnFileActionsDestroy.
KrxuserStatus KrxuserCompat_SpawnFileActionsInit(KrxuserCompatSpawnFileActions** actions, int capacity);

// In the child, duplicates the descriptor `source` onto `target`; onto the same number means that the child inherits
// it. Fails when the list is full or a descriptor is negative.
KrxuserStatus KrxuserCompat_SpawnFileActionsAddDup2(KrxuserCompatSpawnFileActions* actions, int source, int target);

// Starts the program and stores its process id. It starts with default signal dispositions and none blocked, and
// inherits the descriptors that are duplicated and those not marked close-on-exec. `actions` may be null; `attributes`,
// of which there are none yet, must be. Both vectors end in a null pointer.
KrxuserStatus KrxuserCompat_Spawn(pid_t* process, const char* path, const KrxuserCompatSpawnFileActions* actions,
                                  const KrxuserCompatSpawnAttributes* attributes, char* const arguments[],
                                  char* const environment[]);

void KrxuserCompat_SpawnFileActionsDestroy(KrxuserCompatSpawnFileActions* actions);

// Renders a status as text into the buffer, always NUL-terminated, and returns the buffer.
const char* KrxuserStatus_CodeToString(KrxuserStatus status, char* buffer, std::size_t size, unsigned flags);

}  // extern "C"
