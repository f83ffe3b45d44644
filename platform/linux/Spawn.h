// What this layer's ways to start a program share: owners of posix_spawn's file actions and attributes.
//
// Every call that can fail returns posix_spawn's status: 0 or an error number.
#pragma once

#include <csignal>

#include <spawn.h>

namespace platform {

class SpawnFileActions {
  public:
    SpawnFileActions() { ::posix_spawn_file_actions_init(&actions); }
    ~SpawnFileActions() { ::posix_spawn_file_actions_destroy(&actions); }
    SpawnFileActions(const SpawnFileActions&) = delete;
    SpawnFileActions& operator=(const SpawnFileActions&) = delete;

    // A descriptor that is duplicated onto itself is inherited even when it is marked close-on-exec.
    int AddOpen(int target, const char* path, int flags) {
        return ::posix_spawn_file_actions_addopen(&actions, target, path, flags, 0);
    }
    int AddDup2(int source, int target) { return ::posix_spawn_file_actions_adddup2(&actions, source, target); }
    int AddChangeDirectory(int directory) { return ::posix_spawn_file_actions_addfchdir_np(&actions, directory); }
    int AddCloseFrom(int lowest) { return ::posix_spawn_file_actions_addclosefrom_np(&actions, lowest); }

    const posix_spawn_file_actions_t* Get() const { return &actions; }

  private:
    posix_spawn_file_actions_t actions{};
};

// The child starts with every signal at its default and none blocked, whatever this process ignores or blocks.
class SpawnAttributes {
  public:
    explicit SpawnAttributes(int furtherFlags = 0) {
        sigset_t all;
        sigset_t none;
        sigfillset(&all);
        sigemptyset(&none);
        ::posix_spawnattr_init(&attributes);
        ::posix_spawnattr_setsigdefault(&attributes, &all);
        ::posix_spawnattr_setsigmask(&attributes, &none);
        ::posix_spawnattr_setflags(&attributes,
                                   static_cast<short>(POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | furtherFlags));
    }
    ~SpawnAttributes() { ::posix_spawnattr_destroy(&attributes); }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;

    const posix_spawnattr_t* Get() const { return &attributes; }

  private:
    posix_spawnattr_t attributes{};
};

}  // namespace platform
