// Decides, plugin by plugin, whether a run executes it.
#pragma once

#include <string>

namespace lofter {

class Operator {
  public:
    // Called in front of every plugin, on the thread that is going to run it. False when the plugin is to be skipped.
    virtual bool MayExecute(const std::string& plugin) = 0;

  protected:
    ~Operator() = default;
};

}  // namespace lofter
