// System-information nodes of the kernel-control library. A node takes inputs and is then set, which hands them to the
// kernel. The one node used here is "syslog", the kernel's boot log.
#pragma once

#include <string>
#include <vector>

namespace KrxCtl::Util {

class Sysinfo {
  public:
    // Throws std::runtime_error for an unknown node.
    explicit Sysinfo(const std::string& node);

    void AddInput(const std::string& text);

    // Hands each input to the kernel as one record. Throws std::runtime_error with the path and the system's reason
    // when the kernel cannot be reached.
    void Set();

  private:
    std::vector<std::string> inputs;
};

}  // namespace KrxCtl::Util
