#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <unistd.h>

#include "autocli/Streams.h"
#include "autocli/autocli.h"

namespace AutoCli {

namespace {

constexpr char kHelp[] = "--help";

constexpr char kSeparators[] = " \t\n";
constexpr char kSpecial[] = " \t\n'\"\\";

// Text whose front is taken piece by piece.
class Remainder {
  public:
    explicit Remainder(std::string_view text) : rest(text) {}

    bool Empty() const { return rest.empty(); }
    std::string_view Take(std::size_t length) {
        const std::string_view taken = rest.substr(0, length);
        rest.remove_prefix(taken.size());
        return taken;
    }
    std::string_view TakeUntil(const char* symbols) { return Take(std::min(rest.find_first_of(symbols), rest.size())); }

  private:
    std::string_view rest;
};

// What a backslash and the symbol behind it stand for between double quotes. In front of a line end they join two
// lines.
std::string Escaped(std::string_view symbol) {
    if (symbol == "\n") {
        return {};
    }
    const bool isSpecial = symbol.find_first_of("$`\"\\") != std::string_view::npos;
    return isSpecial ? std::string(symbol) : "\\" + std::string(symbol);
}

// The text up to the closing double quote, which is taken as well; nothing when there is none.
std::optional<std::string> TakeDoubleQuoted(Remainder& line) {
    std::string text;
    for (;;) {
        text += line.TakeUntil("\"\\");
        const std::string_view end = line.Take(1);
        if (end == "\"") {
            return text;
        }
        if (line.Empty()) {
            return std::nullopt;
        }
        text += Escaped(line.Take(1));
    }
}

// As a shell splits a line, but that nothing is expanded and nothing is a comment. Nothing when a quote or a backslash
// is left open.
std::optional<std::vector<std::string>> SplitWords(const std::string& text) {
    Remainder line(text);
    std::vector<std::string> words;
    bool inWord = false;
    const auto append = [&](std::string_view piece) {
        words.resize(words.size() + (inWord ? 0 : 1));
        words.back() += piece;
        inWord = true;
    };
    while (!line.Empty()) {
        if (const std::string_view plain = line.TakeUntil(kSpecial); !plain.empty()) {
            append(plain);
            continue;
        }
        const std::string_view symbol = line.Take(1);
        if (symbol.find_first_of(kSeparators) != std::string_view::npos) {
            inWord = false;
        } else if (symbol == "\"") {
            const std::optional<std::string> quoted = TakeDoubleQuoted(line);
            if (!quoted) {
                return std::nullopt;
            }
            append(*quoted);
        } else if (symbol == "'") {
            append(line.TakeUntil("'"));
            if (line.Take(1).empty()) {
                return std::nullopt;
            }
        } else if (line.Empty()) {
            return std::nullopt;
        } else if (const std::string_view literal = line.Take(1); literal != "\n") {
            append(literal);
        }
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
