#include "input/HostCommands.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>

#include <strings.h>

#include "autocli/autocli.h"
#include "base/Paths.h"
#include "input/UnsafeMode.h"

namespace lofter::analyze {

namespace {

// As much as the command executor takes of a command, and what it takes for the request to end itself.
constexpr std::size_t kLongestCommand = 1023;
constexpr std::string_view kStopWord = "stop";

constexpr mode_t kAnybodyExecutes = S_IXUSR | S_IXGRP | S_IXOTH;

std::vector<std::string> SplitAtDots(const std::string& name) {
    std::vector<std::string> words{""};
    for (const char c : name) {
        if (c == '.') {
            words.emplace_back();
        } else {
            words.back() += c;
        }
    }
    return words;
}

std::string Joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        text += text.empty() ? word : " " + word;
    }
    return text;
}

std::string SyntaxText(const std::string& command, const std::vector<std::string>& errors) {
    std::string text = "command \"" + command + "\": ";
    for (const std::string& error : errors) {
        text += (&error == &errors.front() ? "" : "; ") + error;
    }
    return text;
}

// The parser prints its help where the answer goes when a word is --help. Such a line is good whatever else is in it.
// A letter means nothing to how a line is split: with another one for "h" the same words come out, and no help.
bool AsksForHelp(const std::string& command) {
    std::string unquoted = command;
    std::erase_if(unquoted, [](char c) { return c == '\'' || c == '"' || c == '\\' || c == '\n'; });
    if (unquoted.find("--help") == std::string::npos) {
        return false;
    }
    std::string harmless = command;
    std::replace(harmless.begin(), harmless.end(), 'h', 'x');
    AutoCli::OptionParser parser;
    parser.ParseString(harmless);
    const auto& parameters = parser.GetCommandParameters();
    return std::any_of(parameters.begin(), parameters.end(),
                       [](const auto& parameter) { return parameter.first == "xelp" && parameter.second.empty(); });
}

}  // namespace

HostCommands::HostCommands(const HostRoot* root) {
    if (root != nullptr) {
        for (const char* directory : paths::kCommandDirectories) {
            AddDirectory(*root, directory);
        }
    }
}

// Of files with the same words the one in the directory that was added first counts, but only those that can be run.
void HostCommands::AddDirectory(const HostRoot& root, const std::string& directory) {
    std::optional<std::vector<std::string>> names = root.FileNames(directory);
    if (!names) {
        return;
    }
    areKnown = true;
    if (const auto status = root.Status(directory)) {
        CheckMode(*status, directory, "", unsafeModes);
    }
    std::sort(names->begin(), names->end());
    for (const std::string& name : *names) {
        const std::string file = std::string(directory).append("/").append(name);
        const std::optional<struct stat> status = root.Status(file);
        if (!status || !S_ISREG(status->st_mode)) {
            continue;
        }
        CheckMode(*status, file, "", unsafeModes);
        const bool isExecutable = (status->st_mode & kAnybodyExecutes) != 0;
        const auto [known, isNew] = commands.try_emplace(SplitAtDots(name), Command{file, isExecutable});
        if (!isNew && !known->second.isExecutable && isExecutable) {
            known->second = {file, true};
        }
    }
}

std::optional<Finding> HostCommands::Check(const std::string& command, const std::string& plugin,
                                           const Place& place) const {
    const std::string sent = command.substr(0, std::min(command.find('\0'), kLongestCommand));
    if (::strncasecmp(sent.c_str(), kStopWord.data(), kStopWord.size()) == 0 || AsksForHelp(sent)) {
        return std::nullopt;
    }
    AutoCli::OptionParser parser;
    parser.ParseString(sent);
    if (const auto& errors = parser.GetParseErrors(); !errors.empty()) {
        return Finding{"command-syntax", Severity::Error, place, plugin, SyntaxText(command, errors)};
    }
    const auto known = commands.find(parser.GetCommandPath());
    if (!areKnown || (known != commands.end() && known->second.isExecutable)) {
        return std::nullopt;
    }
    std::string text = "unknown command: " + Joined(parser.GetCommandPath());
    if (known != commands.end()) {
        text += " (" + known->second.file + " is not executable)";
    }
    return Finding{"unknown-command", Severity::Warning, place, plugin, std::move(text)};
}

}  // namespace lofter::analyze
