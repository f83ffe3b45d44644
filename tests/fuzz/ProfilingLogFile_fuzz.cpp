// The first byte says where a bad line is put in, the rest is a profiling log: read with and without that line, and put
// to plugins of the names in it.
#include <sstream>

#include "input/LogMatch.h"
#include "input/ProfilingLogFile.h"
#include "support/Bytes.h"
#include "support/Require.h"
#include "support/WithLine.h"

namespace lofter::fuzz {
namespace {

using namespace analyze;

std::optional<LoggedBoot> Read(const std::string& content) {
    std::ostringstream warnings;
    return ParseProfilingLog(content, "log", warnings);
}

void IsSound(const LoggedBoot& boot) {
    for (const LoggedPlugin& plugin : boot.plugins) {
        Require(plugin.name.find('\n') == std::string::npos, "a name ends with its line");
        Require(!plugin.timing || !plugin.timing->end || *plugin.timing->end >= plugin.timing->start,
                "what ended before it began did not run");
    }
}

void AreTheSame(const LoggedBoot& one, const LoggedBoot& other) {
    Require(one.plugins.size() == other.plugins.size(), "a bad line costs no plugin");
    for (std::size_t index = 0; index < one.plugins.size(); ++index) {
        const LoggedPlugin& left = one.plugins[index];
        const LoggedPlugin& right = other.plugins[index];
        Require(
            left.name == right.name && left.timing.has_value() == right.timing.has_value() &&
                (!left.timing || (left.timing->start == right.timing->start && left.timing->end == right.timing->end)),
            "a bad line changes no plugin");
    }
    Require(one.run.kernel == other.run.kernel && one.run.end == other.run.end &&
                one.run.isParallel == other.run.isParallel,
            "a bad line changes nothing about the run");
}

// Every second plugin of the log is one of the host; every fourth is kept out.
void AreMatched(const LoggedBoot& boot, NodeOrder order) {
    std::vector<BootPlugin> plugins;
    for (std::size_t index = 0; index < boot.plugins.size(); index += 2) {
        plugins.emplace_back(PluginDescription(PluginKind::Json, boot.plugins[index].name));
        plugins.back().keptOutBy = index % 4 == 2 ? "kept out" : "";
    }
    const std::size_t given = plugins.size();
    std::ostringstream warnings;
    const std::vector<BootPlugin> matched = MatchLog(std::move(plugins), boot, order, "log", warnings);
    Require(matched.size() >= std::max(given, boot.plugins.size()), "no plugin is lost");
    Require(matched.size() <= given + boot.plugins.size(), "no plugin is there twice");
    for (const BootPlugin& plugin : matched) {
        Require(plugin.Runs() || !plugin.timing, "what is kept out has no times");
    }
    MakeBoot(matched, boot.run);
}

}  // namespace
}  // namespace lofter::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lofter::fuzz;
    Bytes bytes(data, size);
    const std::size_t place = bytes.Byte();
    const std::string content = bytes.Rest();
    const auto boot = Read(content);
    const auto again = Read(WithLine(content, place, "a line of something else"));
    Require(boot.has_value() == again.has_value(), "a bad line makes no boot");
    if (boot) {
        IsSound(*boot);
        AreTheSame(*boot, *again);
        AreMatched(*boot, lofter::analyze::NodeOrder::OfLog);
        AreMatched(*boot, lofter::analyze::NodeOrder::OfPlugins);
    }
    return 0;
}
