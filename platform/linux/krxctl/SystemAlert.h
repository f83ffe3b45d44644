// The host's alert: a text that stands in front of the login prompt.
#pragma once

#include <filesystem>
#include <string>

namespace platform {

inline constexpr char kAlertFile[] = "/run/issue.d/50-lofter.issue";

// Replaces the file's contents by the text, in one step; the folder is made when it is missing. What would mean
// something to the login prompt or the terminal is made harmless. Throws std::runtime_error "<path>: <reason>".
void RecordAlert(const std::filesystem::path& path, const std::string& text);

// Logs the alert, then records it. A text that cannot be recorded has been logged.
void RaiseAlert(const std::filesystem::path& path, const std::string& text);

}  // namespace platform
