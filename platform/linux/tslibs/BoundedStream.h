// A descriptor that is written to with a bound on the waiting, whatever it is and whether it blocks or not.
//
// The descriptor's own flags belong to all processes that share it and are left as they are. A pipe or terminal is
// therefore opened once more, without blocking, by its number in /proc; a socket is told with each record. Where such a
// second description cannot be had (no /proc, no permission, the master of a pseudo-terminal), each write comes after a
// look at whether there is room and is no longer than that, but another writer may take the room away in between. Files
// and what else never waits for a reader are simply written to.
//
// Before each line, Refresh() finds out whether the descriptor was redirected, and whether the second description is
// still this object's own: a child that closed every descriptor may use its number for something else, which is then
// neither written to nor closed. It never has the number of a standard stream. Nothing raises SIGPIPE, nothing
// allocates. Not synchronised.
#pragma once

#include <chrono>
#include <span>

#include <sys/types.h>
#include <sys/uio.h>

#include "posix/Descriptor.h"

namespace platform {

class BoundedStream {
  public:
    using Clock = std::chrono::steady_clock;
    enum class Outcome { kDone, kFull, kFailed };

    // The descriptor is not owned.
    explicit BoundedStream(int descriptor);
    ~BoundedStream();
    BoundedStream(const BoundedStream&) = delete;
    BoundedStream& operator=(const BoundedStream&) = delete;

    // Gives up the second description without closing it, in a forked child, where its number may be another's by now.
    void AfterFork();

    // Returns whether the descriptor stands for another file than at the call before.
    bool Refresh();

    // Writes the pieces, in one call where they are taken at once, and leaves in `parts` what did not go out. Full is
    // what takes nothing until the deadline; once that is past, it is asked but never waited for.
    Outcome Write(std::span<iovec>& parts, Clock::time_point deadline);

  private:
    enum class Way { kPlain, kSecondDescription, kSocket, kAfterALook };

    void Choose();
    void Forget();
    bool IsOwn() const;
    int Target() const { return second ? second.Get() : descriptor; }
    bool WaitForRoom(Clock::time_point deadline) const;
    ssize_t WriteOnce(std::span<iovec> parts) const;
    Outcome WriteAll(std::span<iovec>& parts, Clock::time_point deadline) const;

    const int descriptor;
    posix::Descriptor second;
    Way way = Way::kPlain;
    bool isPipe = false;
    bool hasFailed = false;  // so that it may be another thing by now, behind the same name
    dev_t device = 0;        // identity of the file, the second description's as well
    ino_t inode = 0;
};

}  // namespace platform
