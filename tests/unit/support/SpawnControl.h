// Stands between the code under test and the user-space compatibility library's process creation.
//
// The unit tests link its four calls through this: unless told otherwise they do what they always do. A test may have
// one of them fail, may have another program started than the one asked for, and may look at what was asked for. Armed
// while it lives; at most one lives at a time.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include <sys/types.h>

#include "krxuser/spawn.h"

namespace lofter::test {

class SpawnControl {
  public:
    SpawnControl();
    ~SpawnControl();
    SpawnControl(const SpawnControl&) = delete;
    SpawnControl& operator=(const SpawnControl&) = delete;

    // Statuses that the calls return instead of doing anything; 0 lets them through. The dup2 call fails for
    // `failingStream`.
    KrxuserStatus initStatus = 0;
    KrxuserStatus addDup2Status = 0;
    int failingStream = 0;
    KrxuserStatus spawnStatus = 0;

    // Started in place of the program that is asked for, unless empty.
    std::string program;

    // What was asked for.
    struct Request {
        std::string program;
        std::vector<std::string> arguments;
        std::vector<std::string> environment;
        bool attributes = false;
        pid_t process = -1;
    };
    std::vector<Request> Requests() const;

    // File actions made, and not yet destroyed.
    int LiveFileActions() const;

    struct Calls;

  private:
    mutable std::mutex mutex;
    std::vector<Request> requests;
    int liveFileActions = 0;
};

}  // namespace lofter::test
