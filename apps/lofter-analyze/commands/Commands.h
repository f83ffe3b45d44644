// The commands, one file each. Declaring a command adds its own options and arguments to its part of the command line
// and returns what runs it; that is called after the line was parsed, at most once, and returns the exit status. It
// throws UsageError, InputError or NoAnswerError.
#pragma once

#include <functional>
#include <initializer_list>
#include <ostream>
#include <string>

#include <CLI/CLI.hpp>

#include "input/Options.h"

namespace lofter::analyze {

// What a command works with: the options, and where its answer goes.
struct Question {
    const Options& options;
    std::ostream& output;
};

using Command = std::function<int(const Question&)>;

// Throws UsageError unless the answer is wanted in one of these forms.
void RequireFormat(const Question& question, const std::string& command, std::initializer_list<Format> formats);

Command DeclarePlan(CLI::App& part);
Command DeclareBlame(CLI::App& part);
Command DeclareCriticalChain(CLI::App& part);
Command DeclareWhy(CLI::App& part);
Command DeclareWhatIf(CLI::App& part);
Command DeclareSummary(CLI::App& part);
Command DeclareDiff(CLI::App& part);
Command DeclareStuck(CLI::App& part);
Command DeclareChart(CLI::App& part);
Command DeclareDot(CLI::App& part);
Command DeclareVerify(CLI::App& part);
Command DeclareFlags(CLI::App& part);

}  // namespace lofter::analyze
