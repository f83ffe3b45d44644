#include "console/InteractiveMode.h"

#include <algorithm>
#include <array>
#include <optional>

#include "base/Logging.h"
#include "console/Progress.h"
#include "console/Terminal.h"
#include "console/TroubleshootingShell.h"
#include "console/VirtualConsole.h"

namespace lofter {

namespace {

enum Colour { kRed = 1, kGreen = 2, kYellow = 3, kMagenta = 5, kCyan = 6, kWhite = 7, kReset = 8 };

struct Entry {
    char key;
    const char* text;
    Colour colour;
};

constexpr std::array<Entry, 4> kMenu{{
    {'c', "(c)ontinue", kMagenta},
    {'e', "(e)xecute", kGreen},
    {'t', "(t)roubleshoot", kYellow},
    {'s', "(s)kip", kRed},
}};

std::string Sequence(Colour colour) {
    return colour == kReset ? "\033[0m" : "\033[" + std::to_string(30 + colour) + "m";
}

bool IsAnswer(char key) {
    return std::any_of(kMenu.begin(), kMenu.end(), [key](const Entry& entry) { return entry.key == key; });
}

char LowerCase(char key) {
    return key >= 'A' && key <= 'Z' ? static_cast<char>(key - 'A' + 'a') : key;
}

// The entries on one line, without a line end; colourOf says how each is shown.
template <typename ColourOf>
std::string MenuLine(ColourOf colourOf) {
    std::string line;
    for (const Entry& entry : kMenu) {
        line += line.empty() ? "" : "\t";
        line += Sequence(colourOf(entry)) + entry.text + Sequence(kReset);
    }
    return line;
}

// None when the terminal has been hung up.
std::optional<char> ReadAnswer() {
    KeyInput keys;
    for (;;) {
        const std::optional<char> key = keys.Read();
        if (!key || IsAnswer(LowerCase(*key))) {
            return key ? std::optional(LowerCase(*key)) : std::nullopt;
        }
    }
}

std::optional<char> Prompt(const std::string& plugin, const char* console) {
    SwitchConsole(kPromptTerminal, console);
    // The colour is not reset after the name; kept on purpose.
    WriteToTerminal("current plugin: " + Sequence(kCyan) + plugin + "\n");
    WriteToTerminal(MenuLine([](const Entry& entry) { return entry.colour; }));
    const UsableTerminalAtEnd whileKeysAreRead;
    WriteToTerminal(kHideCursor);
    const std::optional<char> answer = ReadAnswer();
    WriteToTerminal(kShowCursor);
    return answer;
}

// Only the answer keeps its colour.
void RedrawMenu(char answer) {
    WriteToTerminal(
        "\r" + MenuLine([answer](const Entry& entry) { return entry.key == answer ? entry.colour : kWhite; }) + "\n");
}

}  // namespace

bool InteractiveMode::MayExecute(const std::string& plugin) {
    if (!settings.interactive) {
        return true;
    }
    if (!settings.interactiveModeRequirements.empty()) {
        StrikeOffRequirement(plugin);
        return true;
    }
    return Ask(plugin);
}

// The plugin that meets the last requirement is not asked about itself.
void InteractiveMode::StrikeOffRequirement(const std::string& plugin) {
    std::erase(settings.interactiveModeRequirements, plugin);
    if (settings.interactiveModeRequirements.empty()) {
        SwitchConsole(kPromptTerminal, console);
    }
}

// A question whose terminal was hung up is asked again once the terminal is back.
char InteractiveMode::AnswerTo(const std::string& plugin) const {
    for (;;) {
        if (streams) {
            streams->AwaitTerminal();
        }
        if (const std::optional<char> answer = Prompt(plugin, console)) {
            return *answer;
        }
    }
}

bool InteractiveMode::Ask(const std::string& plugin) {
    ClearProgress();  // where the operator's terminal is the console, it is in the question's place
    const char answer = AnswerTo(plugin);
    if (answer == 's') {
        Log_Level(kInfo, "skipping plugin %s (interactive mode request)\n", plugin.c_str());
    }
    RedrawMenu(answer);
    if (answer == 'c') {
        settings.interactive = false;
        SwitchConsole(kProgressTerminal, console);
    } else if (answer == 't') {
        RunTroubleshootingShell();
    }
    ShowProgress();
    return answer != 's';
}

}  // namespace lofter
