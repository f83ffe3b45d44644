#include "InteractiveMode.h"

#include <algorithm>
#include <array>

#include "Logging.h"
#include "Terminal.h"
#include "TroubleshootingShell.h"
#include "VirtualConsole.h"
#include "krxctl/KernelProgressScreenImpl.h"

namespace lofter {

namespace {

enum Colour { kRed = 1, kGreen = 2, kYellow = 3, kMagenta = 5, kCyan = 6, kWhite = 7, kReset = 8 };

constexpr char kHideCursor[] = "\033[?25l";
constexpr char kShowCursor[] = "\033[?25h";

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

char ReadAnswer() {
    KeyInput keys;
    char key = 0;
    do {
        key = LowerCase(keys.Read());
    } while (!IsAnswer(key));
    return key;
}

// Where the operator's terminal is the console, the progress line would be in the question's place.
void ClearProgressLine() {
    KrxCtl::System::KernelProgressScreenImpl progressScreen;
    progressScreen.ProgressText("");
    progressScreen.StatusText("");
}

char Prompt(const std::string& plugin, const char* console) {
    SwitchConsole(kPromptTerminal, console);
    // The colour is not reset after the name; kept on purpose.
    WriteToTerminal("current plugin: " + Sequence(kCyan) + plugin + "\n");
    WriteToTerminal(MenuLine([](const Entry& entry) { return entry.colour; }));
    WriteToTerminal(kHideCursor);
    const char answer = ReadAnswer();
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

bool InteractiveMode::Ask(const std::string& plugin) {
    ClearProgressLine();
    const char answer = Prompt(plugin, console);
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
    return answer != 's';
}

}  // namespace lofter
