// The operator at the console, who is asked in front of each plugin: continue, execute, troubleshoot or skip.
//
// Interactive runs are serial, so prompts never overlap, and the settings need no lock.
//
//     off ──────────────────────────────────────────────▶ never asks
//     on, requirements left ──(the last of them runs)──▶ on, asks ──(c)──▶ off, for the rest of the run
#pragma once

#include <optional>
#include <string>

#include "base/Paths.h"
#include "base/Settings.h"
#include "console/Operator.h"
#include "console/Terminal.h"

namespace lofter {

class InteractiveMode final : public Operator {
  public:
    // Changes the settings as the operator answers: the flag goes off, requirements are struck off the list. A terminal
    // that is on the standard streams now is opened again when it is hung up later.
    explicit InteractiveMode(Settings& record, const char* consolePath = paths::kConsole)
        : settings(record), console(consolePath) {
        if (settings.interactive) {
            streams.emplace();
        }
    }

    // Asks about the plugin if it is one to ask about, and does what the operator wants done before it. False when the
    // plugin is to be skipped.
    bool MayExecute(const std::string& plugin) override;

  private:
    void StrikeOffRequirement(const std::string& plugin);
    bool Ask(const std::string& plugin);
    char AnswerTo(const std::string& plugin) const;

    std::optional<StandardStreams> streams;  // as they were at the start of an interactive run
    Settings& settings;
    const char* console;
};

}  // namespace lofter
