// lofter-analyze: what a boot's files say about it, without booting.
#include <cstdio>
#include <exception>
#include <iostream>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "commands/Commands.h"
#include "input/Errors.h"
#include "input/Options.h"

namespace lofter::analyze {
namespace {

struct CommandEntry {
    const char* name;
    const char* summary;
    Command (*declare)(CLI::App& part);
};

// In the order in which the usage text lists them. The first is the one that runs when none is named.
const std::vector<CommandEntry> kCommands{
    {"summary", "where the time went", DeclareSummary},
    {"verify", "what is wrong with a host's plugins before it boots", DeclareVerify},
    {"plan", "the order in which plugins would run", DeclarePlan},
    {"blame", "which plugins took how long, and what they had waited for", DeclareBlame},
    {"critical-chain", "the chain of waits that ends at the last plugin, or at a given one", DeclareCriticalChain},
    {"why", "whether a plugin runs, and what it waits for", DeclareWhy},
    {"whatif", "how long the boot would take if something were different", DeclareWhatIf},
    {"diff", "what became slower or faster", DeclareDiff},
    {"stuck", "what a boot that hangs waits for", DeclareStuck},
    {"chart", "the boot as a picture, or for a trace viewer", DeclareChart},
    {"dot", "the graph for people, as a Graphviz file", DeclareDot},
    {"flags", "what each boot flag keeps out or lets in", DeclareFlags},
};

int Fail(const std::exception& e, ExitStatus status) {
    std::cerr << "lofter-analyze: " << e.what() << '\n';
    return status;
}

int RunCommand(int argc, char** argv) {
    CLI::App program("Explains a boot: will it work, why was it slow, where does it hang, what would help.",
                     "lofter-analyze");
    Options options;
    DeclareOptions(program, options);
    program.fallthrough();
    program.require_subcommand(0, 1);
    std::vector<std::pair<CLI::App*, Command>> commands;
    for (const CommandEntry& entry : kCommands) {
        CLI::App* part = program.add_subcommand(entry.name, entry.summary);
        commands.emplace_back(part, entry.declare(*part));
    }
    try {
        program.parse(argc, argv);
    } catch (const CLI::Success& e) {
        return program.exit(e);
    } catch (const CLI::ParseError& e) {
        return Fail(e, kWrongUsage);
    }
    for (const auto& [part, command] : commands) {
        if (part->parsed()) {
            return command({options, std::cout});
        }
    }
    return commands.front().second({options, std::cout});
}

int Main(int argc, char** argv) {
    try {
        const int status = RunCommand(argc, argv);
        std::cout.flush();
        if (!std::cout) {
            throw InputError("standard output", "cannot be written");
        }
        return status;
    } catch (const UsageError& e) {
        return Fail(e, kWrongUsage);
    } catch (const NoAnswerError& e) {
        return Fail(e, kNoAnswer);
    } catch (const std::exception& e) {
        return Fail(e, kUnreadableInput);
    }
}

}  // namespace
}  // namespace lofter::analyze

int main(int argc, char** argv) {
    return lofter::analyze::Main(argc, argv);
}
