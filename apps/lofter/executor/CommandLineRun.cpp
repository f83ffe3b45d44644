#include "executor/CommandLineRun.h"

#include <list>

#include "autocli/autocli.h"
#include "base/Exception.h"
#include "base/Logging.h"
#include "executor/QorcliDispatcher.h"

namespace lofter {

namespace {

void RequireParsed(const AutoCli::OptionParser& parser, const std::string& command) {
    const auto& errors = parser.GetParseErrors();
    for (const std::string& error : errors) {
        Log_Level(kError, "Executor was unable to parse command: %s\n", error.c_str());
    }
    if (!errors.empty()) {
        throw Exception("Executor failed to parse command " + command);
    }
}

void Execute(const AutoCli::OptionParser& parser, const std::string& command) {
    const auto input = AutoCli::CommandInput::New();
    const auto output = AutoCli::CommandOutput::New();
    const auto& words = parser.GetCommandPath();
    std::list<std::string> path(words.begin(), words.end());
    input->SetDispatcher("lofter");
    input->SetCommandPath(path);
    for (const auto& [name, value] : parser.GetCommandParameters()) {
        input->AddParameter(name, value);
    }

    QorcliDispatcher::Instance()->ExecuteCommand(input, output);
    if (!output->HasError()) {
        return;
    }
    for (const std::string& error : output->GetErrors()) {
        Log_Level(kError, "execution of '%s' failed : %s\n", command.c_str(), error.c_str());
    }
    throw Exception("Executor failed to execute command: " + command);
}

}  // namespace

std::int32_t RunCommandLine(const std::string& command) {
    try {
        AutoCli::OptionParser parser;
        const bool nothingToRun = parser.ParseString(command);
        if (!nothingToRun) {
            RequireParsed(parser, command);
            Execute(parser, command);
        }
        return 0;
    } catch (const Exception&) {
        return 1;  // the reasons have been logged one by one
    } catch (const std::exception& e) {
        Log_Level(kError, "execution of '%s' failed : %s\n", command.c_str(), e.what());
    } catch (...) {
        Log_Level(kError, "execution of '%s' failed : unknown exception\n", command.c_str());
    }
    return 1;
}

}  // namespace lofter
