#include "input/Options.h"

#include <cstdlib>
#include <map>

#include <unistd.h>

namespace lofter::analyze {

namespace {

enum class ColourMode { Auto, Always, Never };

bool HasColours(ColourMode mode) {
    if (mode != ColourMode::Auto) {
        return mode == ColourMode::Always;
    }
    const char* refusal = std::getenv("NO_COLOR");
    return (refusal == nullptr || *refusal == '\0') && isatty(STDOUT_FILENO) == 1;
}

// Split at commas only; empty parts are dropped, blanks are kept, as lofter does.
template <typename Insert>
void ForEachOf(const std::string& list, const Insert& insert) {
    for (std::size_t at = 0; at <= list.size();) {
        const std::size_t end = std::min(list.find(',', at), list.size());
        if (end > at) {
            insert(list.substr(at, end - at));
        }
        at = end + 1;
    }
}

// An option whose values are lists; every occurrence adds to the target.
template <typename Target>
void AddList(CLI::App& program, const std::string& name, Target& target, const std::string& help) {
    program
        .add_option_function<std::vector<std::string>>(
            name,
            [&target](const std::vector<std::string>& lists) {
                for (const std::string& list : lists) {
                    ForEachOf(list, [&target](std::string part) { target.insert(target.end(), std::move(part)); });
                }
            },
            help)
        ->type_name("NAME[,NAME]")
        ->allow_extra_args(false);
}

void DeclareInput(CLI::App& program, InputOptions& input) {
    constexpr char kGroup[] = "Inputs";
    program
        .add_option_function<std::string>(
            "--root",
            [&input](const std::string& root) {
                input.root = root;
                input.isRootGiven = true;
            },
            "the host, by lofter's paths below this directory (default: /)")
        ->type_name("DIR")
        ->group(kGroup);
    const auto addFile = [&](const char* name, std::optional<std::string>& target, const char* type, const char* help) {
        program.add_option(name, target, help)->type_name(type)->group(kGroup);
    };
    addFile("--plugin-directory", input.pluginDirectory, "DIR", "the plugins, in place of the root's");
    addFile("--debug-configuration", input.debugConfiguration, "FILE",
            "the debug configuration, in place of the root's");
    addFile("--log", input.log, "FILE", "the profiling log, in place of the root's; - is standard input");
    addFile("--graph", input.graph, "FILE", "names and links from what --dump-dependency-tree wrote");
}

void DeclareRun(CLI::App& program, InputOptions& input) {
    AddList(program, "--plugin", input.plugins, "only these plugin files");
    AddList(program, "--disable-plugins", input.disabledPlugins, "without these plugins");
    program
        .add_option_function<std::string>(
            "--plugin-flags",
            [&input](const std::string& list) {
                input.bootFlags.clear();
                ForEachOf(list, [&input](std::string flag) { input.bootFlags.insert(std::move(flag)); });
            },
            "the boot's flags; the last list counts")
        ->type_name("FLAG[,FLAG]")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    AddList(program, "--run-once", input.runOnce, "what has run already");
    program.add_flag("--parallel", input.isParallel, "independent plugins run at once");
}

void DeclareOutput(CLI::App& program, OutputOptions& output) {
    const std::map<std::string, Format> formats{
        {"text", Format::Text}, {"json", Format::Json}, {"sarif", Format::Sarif}};
    program.add_option("--format", output.format, "text, json, or sarif for verify (default: text)")
        ->type_name("FORMAT")
        ->transform(CLI::CheckedTransformer(formats).description(""));
    const std::map<std::string, ColourMode> modes{
        {"auto", ColourMode::Auto}, {"always", ColourMode::Always}, {"never", ColourMode::Never}};
    output.colours = HasColours(ColourMode::Auto);
    program
        .add_option_function<ColourMode>(
            "--color", [&output](const ColourMode& mode) { output.colours = HasColours(mode); },
            "auto, always or never (default: auto, which heeds NO_COLOR)")
        ->type_name("WHEN")
        ->transform(CLI::CheckedTransformer(modes).description(""));
}

}  // namespace

void DeclareOptions(CLI::App& program, Options& options) {
    DeclareInput(program, options.input);
    DeclareRun(program, options.input);
    DeclareOutput(program, options.output);
}

}  // namespace lofter::analyze
