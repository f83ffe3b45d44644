// The host's alert: texts that stand in front of the login prompt.
#pragma once

#include <filesystem>
#include <mutex>
#include <string>

namespace platform {

inline constexpr char kAlertFile[] = "/run/issue.d/50-lofter.issue";

// All texts that were raised through one object, in their order, each on a line of its own. The first one takes the
// place of whatever is in the file. Thread-safe; the lock is held while the file is written.
class SystemAlert {
  public:
    // Nothing is touched before something is raised.
    explicit SystemAlert(std::filesystem::path issueFile);

    // Logs the text, then extends the file, or replaces it in one step unless it is as the last text has left it; its
    // folder is made when it is missing. What would mean something to the login prompt or the terminal is made
    // harmless. Throws std::runtime_error "<path>: <reason>"; the text has been logged then, and is recorded with the
    // next one that can be.
    void Raise(const std::string& text);

  private:
    const std::filesystem::path path;
    std::mutex lock;
    std::string raised;  // as the file has it
};

}  // namespace platform
