// What every command takes: which host, which run of it, and how the answer is to look.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace lofter::analyze {

// Paths are as given. What names a single input is a path here, not below the root.
struct InputOptions {
    std::string root = "/";
    bool isRootGiven = false;
    std::optional<std::string> pluginDirectory;
    std::optional<std::string> debugConfiguration;
    std::optional<std::string> log;  // "-" is standard input
    std::optional<std::string> graph;

    // As lofter takes them.
    std::vector<std::string> plugins;
    std::vector<std::string> disabledPlugins;
    std::set<std::string> bootFlags;
    std::set<std::string> runOnce;
    bool isParallel = false;
};

enum class Format { Text, Json, Sarif };

struct OutputOptions {
    Format format = Format::Text;
    bool colours = false;
};

struct Options {
    InputOptions input;
    OutputOptions output;
};

// Adds the options to the program; they stand before or after a command. Filled when the line has been parsed.
void DeclareOptions(CLI::App& program, Options& options);

}  // namespace lofter::analyze
