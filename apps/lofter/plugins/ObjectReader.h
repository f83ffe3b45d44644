// Reads native plugins in a process of its own: an object that crashes, exits, hangs or leaves something behind when it
// is loaded does so there, and costs only itself.
//
// One process, forked on first use, describes one object after another, so a host without bad objects pays for one fork
// and a host without native plugins for none. When an object ends it, the next object gets another. It has a group of
// its own, no descriptor but the channel and the standard streams (input from /dev/null), and ends with its owner and
// with this process at the latest, together with what objects have forked.
//
//      this process to the other   the path of an object, one message
//      the other to this process   what it says, once it was loaded and unloaded; the loader's own refusals included
//
// For the thread that discovers plugins, while there is no other.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "plugins/description/PluginDescription.h"

namespace lofter {

class ObjectReader {
  public:
    // The limit is for each object.
    explicit ObjectReader(std::chrono::milliseconds loadLimit = std::chrono::seconds(10));
    ~ObjectReader();

    // What DescribeNativePlugin says. Where no process can be had, that is logged once and the object is read in this
    // one.
    // Throws InvalidPluginException with the path and "ended its loader with signal <number> (<name>)", "exited its
    // loader with status <number>", "closed or replaced its loader's descriptors", "damaged its loader" or "did not
    // load within <limit> s".
    PluginDescription Describe(const std::string& name, const std::string& path);

  private:
    class Process;

    bool Start();
    void GiveUp(int reason);

    const std::chrono::milliseconds loadLimit;
    std::unique_ptr<Process> process;  // none before the first object, and after one that ended it
    bool isPossible = true;
};

}  // namespace lofter
