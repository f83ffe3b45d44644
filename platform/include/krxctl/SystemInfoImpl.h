// Host-wide state that the operator sees.
#pragma once

#include <string>

namespace KrxCtl::System {

class SystemInfoImpl {
  public:
    // Raises the text as the host's alert: it stays in front of whoever logs in, below what this process has raised
    // before, until another process raises one. Throws std::runtime_error with the path and the system's reason when it
    // cannot be recorded.
    void SetSystemAlert(const std::string& text);
};

}  // namespace KrxCtl::System
