// What helps a server over connections that it cannot accept.
//
// Their clients wait, and the socket stays readable: the server's loop would spin. So it pauses after a failure, twice
// as long after the next one, until one is accepted. And a process whose descriptors are used up would never accept
// one: so a descriptor is kept in reserve and let go of then. Whoever gets its place is served, as far as that goes
// without further descriptors, and can stop the server. Not synchronised.
#pragma once

#include <functional>
#include <utility>

#include "posix/Descriptor.h"

namespace lofter {

class AcceptRelief {
  public:
    // Passes so many milliseconds.
    static void Sleep(int milliseconds);

    explicit AcceptRelief(std::function<void(int milliseconds)> passTime = Sleep) : pass(std::move(passTime)) {}

    // Before the first connection and after each that was accepted: takes a reserve if there is none, and makes the
    // next pause the shortest.
    void SetAside();

    // After each connection that could not be accepted: lets go of the reserve and pauses for 10 milliseconds, twice as
    // long each further time, a second at most.
    void AfterFailure();

  private:
    static constexpr int kFirstPause = 10;  // milliseconds
    static constexpr int kLongestPause = 1000;

    std::function<void(int milliseconds)> pass;
    posix::Descriptor reserve;
    int nextPause = kFirstPause;
};

}  // namespace lofter
