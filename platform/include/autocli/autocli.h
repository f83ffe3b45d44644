// The CLI framework of the host: parses command lines and runs host commands.
//
// A command directory holds one executable file per command; its name is the command's path joined with dots, so that
// `network.ip.set` is the command `network ip set`. The file runs with the parameters as --name=value arguments, in the
// order given, and tells of an error by a non-zero exit, with one text per line on its standard error.
//
// Everything here is for one thread of one process.
#pragma once

#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace CallSpec {

// What a call is made with: named parameters, in order.
class Input {
  public:
    using Parameter = std::pair<std::string, std::string>;

    void AddParameter(const std::string& name, const std::string& value) { parameters.emplace_back(name, value); }
    const std::vector<Parameter>& GetParameters() const { return parameters; }

  private:
    std::vector<Parameter> parameters;
};

// What became of a call: nothing to say, or errors.
class Output {
  public:
    bool HasError() const { return !errors.empty(); }
    const std::vector<std::string>& GetErrors() const { return errors; }
    void AddError(const std::string& text) { errors.push_back(text); }

  private:
    std::vector<std::string> errors;
};

}  // namespace CallSpec

namespace AutoCli {

class CommandInput : public CallSpec::Input {
  public:
    static std::shared_ptr<CommandInput> New() { return std::make_shared<CommandInput>(); }

    // On whose behalf the command runs; commands find the name in QORCLI_DISPATCHER.
    void SetDispatcher(const std::string& name) { dispatcher = name; }
    const std::string& GetDispatcher() const { return dispatcher; }

    void SetCommandPath(std::list<std::string>& words) { path.assign(words.begin(), words.end()); }
    const std::vector<std::string>& GetCommandPath() const { return path; }

  private:
    std::string dispatcher;
    std::vector<std::string> path;
};

class CommandOutput : public CallSpec::Output {
  public:
    static std::shared_ptr<CommandOutput> New() { return std::make_shared<CommandOutput>(); }
};

// Takes one command line apart: the words of the path, then --name=value or --name (an empty value). Words are
// separated and quoted as in a shell (blanks, quotes, backslash); nothing is expanded.
class OptionParser {
  public:
    // True when --help is among the words: the help was printed and there is nothing to run. False otherwise; the line
    // can be run when there are no parse errors. Each call starts from nothing.
    bool ParseString(const std::string& line);

    const std::vector<std::string>& GetParseErrors() const { return errors; }
    const std::vector<std::string>& GetCommandPath() const { return path; }
    const std::vector<CallSpec::Input::Parameter>& GetCommandParameters() const { return parameters; }

  private:
    void TakeWord(const std::string& word);
    void TakeOption(const std::string& word);

    bool optionSeen = false;
    std::vector<std::string> errors;
    std::vector<std::string> path;
    std::vector<CallSpec::Input::Parameter> parameters;
};

// Knows the commands of the directories that it was given and runs them.
class Dispatcher {
  public:
    Dispatcher();
    virtual ~Dispatcher();
    Dispatcher(const Dispatcher&) = delete;
    Dispatcher& operator=(const Dispatcher&) = delete;

    // Reads the directory, this once: its executable files, not those of directories below. Of commands with the same
    // path the first one added counts. Throws a standard exception when the directory cannot be read; nothing of it is
    // added then.
    void AddExternalDirectory(const std::string& directory);

    // Runs the command and waits until its process has ended, not for what that leaves behind. Whatever goes wrong is
    // in the output's errors.
    void ExecuteCommand(std::shared_ptr<CommandInput> input, std::shared_ptr<CommandOutput> output);

    // The commands of the dispatcher that was created last and still exists, sorted, with blanks between the words.
    static std::vector<std::string> KnownCommands();

  private:
    std::map<std::vector<std::string>, std::string> files;  // by command path
};

}  // namespace AutoCli
