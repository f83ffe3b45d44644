// The bytes are a debug configuration. No command of it is run.
//
// The entries are written down again, every letter protected where it must be; read once more they are the same.
#include <sstream>

#include "graph/Barriers.h"
#include "plugins/DebugConfiguration.h"
#include "plugins/DebugPlugin.h"
#include "support/Bytes.h"
#include "support/Require.h"

namespace lofter::fuzz {
namespace {

// A field between quotes, which hold nothing but keep white space at its ends.
std::string Protected(const std::string& text) {
    std::string field = "\"\"";
    for (const char letter : text) {
        if (letter == '\n') {
            field += "\\n";
            continue;
        }
        if (letter == '\\' || letter == '"' || letter == '\'') {
            field += '\\';
        }
        field += letter == ':' || letter == ',' ? "\"" + std::string(1, letter) + "\"" : std::string(1, letter);
    }
    return field + "\"\"";
}

std::string ListOf(const std::vector<std::string>& names) {
    std::string list;
    for (const std::string& name : names) {
        list += (list.empty() ? "" : ",") + Protected(name);
    }
    return list.empty() ? list : Protected(list);
}

bool Same(const DebugEntry& one, const DebugEntry& other) {
    return one.name == other.name && one.requiredBarriers == other.requiredBarriers &&
           one.providedBarriers == other.providedBarriers && one.command == other.command;
}

void ReadsBackAsItWas(const std::vector<DebugEntry>& entries) {
    std::stringstream file;
    for (const DebugEntry& entry : entries) {
        file << Protected(entry.name) << ':' << ListOf(entry.requiredBarriers) << ':' << ListOf(entry.providedBarriers)
             << ':' << Protected(entry.command) << '\n';
    }
    const std::vector<DebugEntry> again = ParseDebugConfiguration(file);
    Require(again.size() == entries.size(), "every entry is read back");
    for (std::size_t index = 0; index < entries.size(); ++index) {
        Require(Same(again[index], entries[index]), "entry " + std::to_string(index) + " is read back as it was");
    }
}

void BecomePlugins(const std::vector<DebugEntry>& entries) {
    for (const DebugEntry& entry : entries) {
        const DebugPlugin plugin(entry);
        Require(plugin.Dependencies().size() == entry.requiredBarriers.size(), "one edge per required barrier");
        Require(plugin.Dependents().size() == entry.providedBarriers.size(), "one edge per provided barrier");
    }
    ForgetGraph();
}

}  // namespace
}  // namespace lofter::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lofter::fuzz;
    std::istringstream file(Bytes(data, size).Rest());
    const std::vector<lofter::DebugEntry> entries = lofter::ParseDebugConfiguration(file);
    ReadsBackAsItWas(entries);
    BecomePlugins(entries);
    return 0;
}
