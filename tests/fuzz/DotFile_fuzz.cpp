// The first byte says where a bad line is put in, the rest is a dependency dump: read with and without that line,
// dumped again and read again.
#include <optional>
#include <sstream>

#include "input/DotFile.h"
#include "input/Errors.h"
#include "support/Bytes.h"
#include "support/Require.h"
#include "support/WithLine.h"

namespace lofter::fuzz {
namespace {

using namespace analyze;

std::optional<std::vector<BootPlugin>> Read(const std::string& content) {
    std::ostringstream warnings;
    try {
        return ParseDotFile(content, "dump", warnings);
    } catch (const InputError&) {
        return std::nullopt;
    }
}

void AreTheSame(const std::vector<BootPlugin>& one, const std::vector<BootPlugin>& other) {
    Require(one.size() == other.size(), "as many plugins");
    for (std::size_t index = 0; index < one.size(); ++index) {
        Require(one[index].Name() == other[index].Name(), "the same names");
        Require(one[index].Runs() == other[index].Runs(), "the same plugins kept out");
        Require(one[index].description.links == other[index].description.links, "the same links");
    }
}

// As lofter would write it: plugins with what they provide, then barriers with who requires them.
std::string Dumped(const Boot& boot) {
    std::ostringstream output;
    output << "digraph g {\n";
    const auto barrierId = [&](BarrierIndex barrier) {
        return boot.plugins.size() + barrier;
    };
    for (PluginIndex plugin = 0; plugin < boot.plugins.size(); ++plugin) {
        output << plugin << " [label=\"" << boot.plugins[plugin].Name() << "\"];\n";
        for (const BarrierIndex barrier : boot.plugins[plugin].providedBarriers) {
            output << plugin << " -> " << barrierId(barrier) << ";\n";
        }
    }
    for (BarrierIndex barrier = 0; barrier < boot.barriers.size(); ++barrier) {
        output << barrierId(barrier) << " [label=\"" << boot.barriers[barrier].name << "\" shape=box];\n";
        for (const PluginIndex plugin : boot.barriers[barrier].requirers) {
            output << barrierId(barrier) << " -> " << plugin << ";\n";
        }
    }
    output << "}\n";
    return output.str();
}

void IsReadAgain(const std::vector<BootPlugin>& plugins) {
    const Boot boot = MakeBoot(plugins, std::nullopt);
    const auto again = Read(Dumped(boot));
    Require(again.has_value(), "a dump is one");
    const Boot other = MakeBoot(*again, std::nullopt);
    Require(boot.plugins.size() == other.plugins.size(), "as many plugins are read again");
    for (PluginIndex plugin = 0; plugin < boot.plugins.size(); ++plugin) {
        Require(boot.plugins[plugin].Name() == other.plugins[plugin].Name(), "names are read again");
        Require(boot.plugins[plugin].providedBarriers.size() == other.plugins[plugin].providedBarriers.size(),
                "links are read again");
    }
}

// A plugin can be called like the end of a barrier's statement.
bool HasOddNames(const std::vector<BootPlugin>& plugins) {
    for (const BootPlugin& plugin : plugins) {
        if (plugin.Name().find("shape=") != std::string::npos) {
            return true;
        }
    }
    return false;
}

}  // namespace
}  // namespace lofter::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lofter::fuzz;
    Bytes bytes(data, size);
    const std::size_t place = bytes.Byte();
    const std::string content = bytes.Rest();
    const auto plugins = Read(content);
    const auto again = Read(WithLine(content, place, "a line of something else"));
    Require(plugins.has_value() == again.has_value(), "a bad line makes no dump");
    if (plugins) {
        AreTheSame(*plugins, *again);
        if (!HasOddNames(*plugins)) {
            IsReadAgain(*plugins);
        }
    }
    return 0;
}
