// The bytes, up to a NUL, are the line of a host command. Nothing is run.
//
// The line is split again here as a shell would: a state for each kind of quoting, one letter after another.
#include <optional>

#include "autocli/autocli.h"
#include "support/Bytes.h"
#include "support/Require.h"

namespace lofter::fuzz {
namespace {

using Words = std::vector<std::string>;

class Splitter {
  public:
    // Nothing when a quote or a backslash is left open.
    std::optional<Words> Split(const std::string& line) {
        for (const char letter : line) {
            Take(letter);
        }
        EndWord();
        return quote != '\0' || escaped ? std::nullopt : std::optional(words);
    }

  private:
    void Take(char letter) {
        if (escaped) {
            TakeEscaped(letter);
        } else if (letter == '\\' && quote != '\'') {
            escaped = true;
        } else if (quote != '\0') {
            letter == quote ? void(quote = '\0') : void(word += letter);
        } else if (letter == '\'' || letter == '"') {
            quote = letter;
            inWord = true;
        } else if (letter == ' ' || letter == '\t' || letter == '\n') {
            EndWord();
        } else {
            Add(letter);
        }
    }

    // Between double quotes a backslash is itself in front of most letters; a line end behind it joins two lines.
    void TakeEscaped(char letter) {
        escaped = false;
        const bool means = quote == '\0' || std::string("$`\"\\\n").find(letter) != std::string::npos;
        if (!means) {
            Add('\\');
        }
        if (letter != '\n') {
            Add(letter);
        }
    }

    void Add(char letter) {
        word += letter;
        inWord = true;
    }

    void EndWord() {
        if (inWord) {
            words.push_back(word);
        }
        word.clear();
        inWord = false;
    }

    Words words;
    std::string word;
    bool inWord = false;
    bool escaped = false;
    char quote = '\0';
};

bool IsOption(const std::string& word) {
    return word.starts_with('-');
}

bool IsNamed(const std::string& option) {
    return option.starts_with("--") && option.size() > 2 && option[2] != '=';
}

// How many complaints the words deserve.
std::size_t Complaints(const Words& words) {
    std::size_t complaints = 0;
    bool optionSeen = false;
    bool pathSeen = false;
    for (const std::string& word : words) {
        complaints += IsOption(word) ? !IsNamed(word) : optionSeen;
        pathSeen = pathSeen || (!IsOption(word) && !optionSeen);
        optionSeen = optionSeen || IsOption(word);
    }
    return complaints + (pathSeen ? 0 : 1);
}

void HasTheWords(const AutoCli::OptionParser& parser, const Words& words) {
    std::size_t next = 0;
    for (const std::string& word : parser.GetCommandPath()) {
        Require(next < words.size() && words[next++] == word, "a word of the path");
    }
    for (const auto& [name, value] : parser.GetCommandParameters()) {
        Require(next < words.size(), "a parameter for every option");
        const std::string& word = words[next++];
        const bool isSame = word == "--" + name + "=" + value || (value.empty() && word == "--" + name);
        Require(isSame && name.find('=') == std::string::npos, "a parameter is its option");
    }
    Require(next == words.size(), "every word is in the path or a parameter");
}

}  // namespace
}  // namespace lofter::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lofter::fuzz;
    const std::string line = Bytes(data, size).TextUntil('\0');
    AutoCli::OptionParser parser;
    const bool nothingToRun = parser.ParseString(line);

    const std::optional<Words> words = Splitter().Split(line);
    if (!words) {
        Require(!nothingToRun && parser.GetParseErrors().size() == 1, "an open quote is one error");
        return 0;
    }
    Require(nothingToRun == (std::find(words->begin(), words->end(), "--help") != words->end()), "help runs nothing");
    if (nothingToRun) {
        Require(parser.GetParseErrors().empty(), "help is no error");
        return 0;
    }
    Require(parser.GetParseErrors().size() == Complaints(*words), "as many errors as mistakes");
    if (parser.GetParseErrors().empty()) {
        HasTheWords(parser, *words);
    }
    return 0;
}
