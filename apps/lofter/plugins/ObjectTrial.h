// Shared objects on trial: each is loaded into a process of its own before it is loaded into this one, where an object
// that crashes, exits or hangs would end the boot.
//
// One process, forked on first use, tries one object after another, so a host without bad objects pays for one fork and
// a host without native plugins for none. When an object ends it, the next object gets another. It does exactly what
// the real load does, and reaches nobody else: it has a group of its own, no descriptor but the channel, /dev/null as
// standard streams, and ends with its owner and with this process at the latest.
//
//      this process to the other   the path of an object, one message
//      the other to this process   one byte, once the object has come and gone; the loader's own refusals included
//
// For the thread that discovers plugins, while there is no other.
#pragma once

#include <chrono>
#include <memory>
#include <string>

namespace lofter {

class ObjectTrial {
  public:
    // The limit is for each object.
    explicit ObjectTrial(std::chrono::seconds loadLimit = std::chrono::seconds(10));
    ~ObjectTrial();

    // Returns when the object may be loaded: it survived, or no process could be had to try it in, which is logged
    // once. Throws InvalidPluginException with the path and "ended its loader with signal <number> (<name>)", "exited
    // its loader with status <number>", "closed or replaced its loader's descriptors" or "did not load within <limit>
    // s".
    void Try(const std::string& path);

  private:
    class Process;

    bool Start();
    void GiveUp(int reason);

    const std::chrono::seconds limit;
    std::unique_ptr<Process> process;  // none before the first object, and after one that ended it
    bool isPossible = true;
};

}  // namespace lofter
