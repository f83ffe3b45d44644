// The first byte says where a line of somebody else is put in, the second whether the boot was parallel; then come the
// lines of a small host, "name requires,... provides,...", up to an empty one; the rest is a capture of its boot.
#include <sstream>

#include "input/ConsoleCapture.h"
#include "support/Bytes.h"
#include "support/Require.h"
#include "support/WithLine.h"

namespace lofter::fuzz {
namespace {

using namespace analyze;

std::vector<std::string> Words(const std::string& text, char separator) {
    std::vector<std::string> words;
    std::istringstream stream(text);
    for (std::string word; std::getline(stream, word, separator);) {
        words.push_back(word);
    }
    return words;
}

std::vector<BootPlugin> ReadPlugins(Bytes& bytes) {
    std::vector<BootPlugin> plugins;
    for (std::string line = bytes.TextUntil('\n'); !line.empty(); line = bytes.TextUntil('\n')) {
        std::vector<std::string> words = Words(line, ' ');
        words.resize(3);
        PluginDescription description(PluginKind::Json, words[0]);
        for (const std::string& barrier : Words(words[1], ',')) {
            description.Require(barrier);
        }
        for (const std::string& barrier : Words(words[2], ',')) {
            description.Provide(barrier);
        }
        plugins.emplace_back(std::move(description));
        plugins.back().keptOutBy = line.ends_with('!') ? "kept out" : "";
    }
    return plugins;
}

void AreTheSame(const CapturedBoot& one, const CapturedBoot& other) {
    Require(one.plugins.size() == other.plugins.size() && one.progress == other.progress &&
                one.failures.size() == other.failures.size() && one.strangers == other.strangers &&
                one.hasBegun == other.hasBegun,
            "a line of somebody else changes nothing");
}

void IsAnswered(CapturedBoot captured, std::size_t given) {
    Require(captured.plugins.size() >= given && captured.plugins.size() == captured.progress.size(),
            "every plugin has its progress");
    const Boot boot = MakeBoot(std::move(captured.plugins), std::nullopt);
    for (PluginIndex plugin = 0; plugin < boot.plugins.size(); ++plugin) {
        Require(boot.plugins[plugin].Runs() || captured.progress[plugin] == Progress::NotBegun,
                "what began is not kept out");
    }
    const std::vector<Progress> progress = WithWhatMustBeOver(boot, captured.progress);
    const Standstill standstill = FindStandstill(boot, progress);
    for (const Standstill::Holder& holder : standstill.running) {
        Require(progress[holder.plugin] == Progress::Running, "what runs is running");
    }
    for (const Standstill::Waiter& waiter : standstill.waiting) {
        Require(progress[waiter.plugin] == Progress::NotBegun, "what waits did not begin");
        Require(!waiter.barriers.empty() && !waiter.heldBy.empty(), "what waits does so for something");
    }
}

}  // namespace
}  // namespace lofter::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lofter::fuzz;
    using lofter::analyze::ParseConsoleCapture;
    Bytes bytes(data, size);
    const std::size_t place = bytes.Byte();
    const bool isParallel = bytes.Flag();
    const std::vector<lofter::analyze::BootPlugin> plugins = ReadPlugins(bytes);
    const std::string content = bytes.Rest();
    const auto captured = ParseConsoleCapture(content, plugins, isParallel);
    AreTheSame(captured, ParseConsoleCapture(WithLine(content, place, "[ 1.0] usb: new device"), plugins, isParallel));
    IsAnswered(captured, plugins.size());
    return 0;
}
