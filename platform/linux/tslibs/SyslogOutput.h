// Log lines for the syslog daemon: facility daemon, "<priority>Nov 21 01:39:08 identifier: text", the time in the local
// zone. Records carry no line ends at their end.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "tslibs/LogOutput.h"
#include "tslibs/SyslogClient.h"

namespace platform {

inline constexpr char kSyslogSocket[] = "/dev/log";

struct SyslogOutput final : LogOutput {
    SyslogOutput(std::string socketPath, const std::string& identifier, int finestLevel = kInfoLevel);

    void Write(int level, std::string_view message) override;
    void Alert(std::string_view message) override;

  private:
    void Send(int severity, std::string_view message);

    SyslogClient client;
    std::string identifier;
    int finestLevel;
    std::chrono::seconds localOffset;  // taken once: asking for it later takes a lock that a forked child may find held
};

}  // namespace platform
