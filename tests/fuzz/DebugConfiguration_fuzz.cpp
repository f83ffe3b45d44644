// The bytes are a debug configuration. No command of it is run.
//
// The entries are written down again, every letter protected where it must be; read once more they are the same.
#include <sstream>

#include "plugins/description/DebugConfiguration.h"
#include "support/Bytes.h"
#include "support/Plugins.h"
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

bool Same(const PluginDescription& one, const PluginDescription& other) {
    return one.name == other.name && one.links == other.links && one.startCommands == other.startCommands;
}

void ReadsBackAsItWas(const std::vector<PluginDescription>& entries) {
    std::stringstream file;
    for (const PluginDescription& entry : entries) {
        file << Protected(entry.name) << ':' << ListOf(test::Required(entry)) << ':' << ListOf(test::Provided(entry))
             << ':' << Protected(entry.startCommands.at(0)) << '\n';
    }
    const std::vector<PluginDescription> again = ParseDebugConfiguration(file).entries;
    Require(again.size() == entries.size(), "every entry is read back");
    for (std::size_t index = 0; index < entries.size(); ++index) {
        Require(Same(again[index], entries[index]), "entry " + std::to_string(index) + " is read back as it was");
    }
}

}  // namespace
}  // namespace lofter::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lofter::fuzz;
    std::istringstream file(Bytes(data, size).Rest());
    ReadsBackAsItWas(lofter::ParseDebugConfiguration(file).entries);
    return 0;
}
