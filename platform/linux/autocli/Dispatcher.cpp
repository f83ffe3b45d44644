#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

#include "autocli/CommandRun.h"
#include "autocli/autocli.h"
#include "posix/Directory.h"

namespace AutoCli {

namespace {

// Whose commands the help lists.
const Dispatcher* latest = nullptr;

std::vector<std::string> SplitAtDots(const std::string& name) {
    std::vector<std::string> words;
    std::size_t start = 0;
    for (std::size_t dot = name.find('.'); dot != std::string::npos; dot = name.find('.', start)) {
        words.push_back(name.substr(start, dot - start));
        start = dot + 1;
    }
    words.push_back(name.substr(start));
    return words;
}

std::string JoinWithBlanks(const std::vector<std::string>& words) {
    std::string joined;
    for (const std::string& word : words) {
        joined += joined.empty() ? word : " " + word;
    }
    return joined;
}

bool IsCommand(const std::filesystem::path& file) {
    std::error_code ignored;  // what vanished or cannot be looked at is no command
    return std::filesystem::is_regular_file(file, ignored) && ::access(file.c_str(), X_OK) == 0;
}

}  // namespace

Dispatcher::Dispatcher() {
    latest = this;
}

Dispatcher::~Dispatcher() {
    if (latest == this) {
        latest = nullptr;
    }
}

void Dispatcher::AddExternalDirectory(const std::string& directory) {
    std::map<std::vector<std::string>, std::string> found;
    for (const std::string& name : posix::FileNames(directory)) {
        const std::filesystem::path file = std::filesystem::path(directory) / name;
        if (IsCommand(file)) {
            found.emplace(SplitAtDots(name), file);
        }
    }
    files.merge(found);
}

// The parameters are as the framework declares them. NOLINTNEXTLINE(performance-unnecessary-value-param)
void Dispatcher::ExecuteCommand(std::shared_ptr<CommandInput> input, std::shared_ptr<CommandOutput> output) {
    const auto file = files.find(input->GetCommandPath());
    if (file == files.end()) {
        output->AddError("unknown command: " + JoinWithBlanks(input->GetCommandPath()));
        return;
    }
    std::vector<std::string> arguments;
    for (const auto& [name, value] : input->GetParameters()) {
        arguments.push_back(std::string("--").append(name).append("=").append(value));
    }
    for (const std::string& error : platform::RunCommand(file->second, arguments, input->GetDispatcher())) {
        output->AddError(error);
    }
}

std::vector<std::string> Dispatcher::KnownCommands() {
    std::vector<std::string> commands;
    if (latest != nullptr) {
        for (const auto& [path, file] : latest->files) {
            commands.push_back(JoinWithBlanks(path));
        }
    }
    return commands;
}

}  // namespace AutoCli
