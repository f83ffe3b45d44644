#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <glib.h>
#include <unistd.h>

#include "autocli/Streams.h"
#include "autocli/autocli.h"

namespace AutoCli {

namespace {

constexpr char kHelp[] = "--help";

// A byte that is neither in the line nor means anything to the splitter; '#' when the line has them all.
char StandIn(const std::string& line) {
    for (int code = 1; code < 256; ++code) {
        const char candidate = static_cast<char>(code);
        if (std::string_view(" \t\r\n\f\v\\'\"#").find(candidate) == std::string_view::npos &&
            line.find(candidate) == std::string::npos) {
            return candidate;
        }
    }
    return '#';
}

// Nothing when a quote is left open.
std::optional<std::vector<std::string>> SplitWords(std::string line) {
    // The splitter takes '#' before a word for the start of a comment. Command lines have no comments.
    const char standIn = StandIn(line);
    std::replace(line.begin(), line.end(), '#', standIn);

    int count = 0;
    char** split = nullptr;
    GError* failure = nullptr;
    if (!g_shell_parse_argv(line.c_str(), &count, &split, &failure)) {
        const std::unique_ptr<GError, decltype(&g_error_free)> reason(failure, g_error_free);
        if (g_error_matches(reason.get(), G_SHELL_ERROR, G_SHELL_ERROR_EMPTY_STRING)) {
            return std::vector<std::string>();
        }
        return std::nullopt;
    }
    const std::unique_ptr<char*, decltype(&g_strfreev)> owned(split, g_strfreev);
    std::vector<std::string> words(split, split + count);
    for (std::string& word : words) {
        std::replace(word.begin(), word.end(), standIn, '#');
    }
    return words;
}

void PrintHelp() {
    std::string text = "usage: <word> [<word>...] [--name[=value]...]\n";
    const std::vector<std::string> commands = Dispatcher::KnownCommands();
    text += commands.empty() ? "" : "commands:\n";
    for (const std::string& command : commands) {
        text += "  " + command + "\n";
    }
    platform::WriteAll(STDOUT_FILENO, text);
}

}  // namespace

bool OptionParser::ParseString(const std::string& line) {
    *this = OptionParser();
    const std::optional<std::vector<std::string>> words = SplitWords(line);
    if (!words) {
        errors.emplace_back("unterminated quote or backslash");
        return false;
    }
    if (std::find(words->begin(), words->end(), kHelp) != words->end()) {
        PrintHelp();
        return true;
    }
    if (words->empty()) {
        errors.emplace_back("empty command");
        return false;
    }
    for (const std::string& word : *words) {
        TakeWord(word);
    }
    if (path.empty()) {
        errors.emplace_back("options without a command");
    }
    return false;
}

void OptionParser::TakeWord(const std::string& word) {
    if (word.starts_with('-')) {
        TakeOption(word);
    } else if (optionSeen) {
        errors.push_back("word after the first option: " + word);
    } else {
        path.push_back(word);
    }
}

void OptionParser::TakeOption(const std::string& word) {
    optionSeen = true;
    const std::size_t equals = word.find('=');
    if (!word.starts_with("--") || word.size() == 2 || equals == 2) {
        errors.push_back("not of the form --name or --name=value: " + word);
    } else if (equals == std::string::npos) {
        parameters.emplace_back(word.substr(2), "");
    } else {
        parameters.emplace_back(word.substr(2, equals - 2), word.substr(equals + 1));
    }
}

}  // namespace AutoCli
