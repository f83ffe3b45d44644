// The bytes are the words of a command line, with NUL between them. Nothing of what they ask for is done.
//
// Whatever the words: of two options that exclude each other one is on, an accepted combination makes sense, and a
// second look at the same words sees the same.
#include "support/Bytes.h"
#include "support/CommandLineOf.h"
#include "support/Require.h"

namespace lofter::fuzz {
namespace {

bool Same(const RunOptions& one, const RunOptions& other) {
    return one.init == other.init && one.daemon == other.daemon && one.dump == other.dump &&
           one.dumpPath == other.dumpPath && one.plugins == other.plugins && one.pluginFlags == other.pluginFlags &&
           one.runOnce == other.runOnce && one.pluginDirectory == other.pluginDirectory;
}

void HoldsNoEmptyName(const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        Require(!name.empty() && name.find(',') == std::string::npos, "names are split at commas and not empty");
    }
}

void MakesSense(const RunOptions& options, const Settings& settings) {
    if (options.daemon) {
        Require(!settings.interactive && !settings.invoke && !options.init && options.plugins.empty(),
                "a daemon run is nothing else");
        Require(settings.method == "start" || settings.method == "stop", "a daemon run starts or stops");
    }
    if (settings.invoke) {
        Require(!settings.method.empty() && !options.plugins.empty(), "what is invoked has a name");
    }
}

}  // namespace
}  // namespace lofter::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lofter::fuzz;
    Bytes bytes(data, size);
    std::vector<std::string> words;
    while (!bytes.Empty()) {
        words.push_back(bytes.TextUntil('\0'));
    }

    lofter::Settings settings;
    const lofter::CommandLine first = Parse(words, settings);
    Require(!(settings.parallel && settings.interactive), "a run is parallel or interactive");
    Require(!first.exitStatus || *first.exitStatus == 0 || *first.exitStatus == 1, "the status is 0 or 1");
    HoldsNoEmptyName(first.options.plugins);
    HoldsNoEmptyName(settings.disabledPlugins);
    HoldsNoEmptyName(settings.interactiveModeRequirements);
    if (!first.exitStatus) {
        MakesSense(first.options, settings);
    }
    lofter::Settings others;
    const lofter::CommandLine second = Parse(words, others);
    Require(first.exitStatus == second.exitStatus && Same(first.options, second.options), "the same words, the same");
    return 0;
}
