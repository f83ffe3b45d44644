// The progress screen that the host's console shows while the host boots. Any number of objects show the same screen;
// all operations may be called from any thread, and none throws anything but std::bad_alloc.
#pragma once

#include <string>

namespace KrxCtl::System {

class KernelProgressScreenImpl {
  public:
    void ProgressText(const std::string& text);
    void StatusText(const std::string& text);
    void Step();
};

}  // namespace KrxCtl::System
