#include "plugins/description/DebugConfiguration.h"

#include <utility>

#include <boost/algorithm/string/trim.hpp>
#include <boost/token_functions.hpp>
#include <boost/tokenizer.hpp>
#include <fcntl.h>

#include "posix/File.h"
#include "posix/FileBuffer.h"

namespace lofter {

namespace {

constexpr char kEscape[] = "\\";
constexpr char kQuotes[] = "\"'";
constexpr std::size_t kFields = 4;

// Throws boost::escaped_list_error for a backslash in front of anything that needs none.
std::vector<std::string> Split(const std::string& text, const char* separator) {
    using Separator = boost::escaped_list_separator<char>;
    const boost::tokenizer<Separator> tokens(text, Separator(kEscape, separator, kQuotes));
    std::vector<std::string> fields;
    for (const std::string& field : tokens) {  // once: a range constructor would split the text twice, to count first
        fields.push_back(field);
    }
    return fields;
}

std::vector<std::string> BarrierNames(const std::string& field) {
    return Split(boost::algorithm::trim_copy(field), ",");
}

PluginDescription Describe(std::vector<std::string>& fields, int line) {
    PluginDescription plugin(PluginKind::Debug, std::move(fields[0]));
    plugin.line = line;
    plugin.version = 1;
    for (std::string& barrier : BarrierNames(fields[1])) {
        plugin.Require(std::move(barrier));
    }
    for (std::string& barrier : BarrierNames(fields[2])) {
        plugin.Provide(std::move(barrier));
    }
    plugin.startCommands.push_back(std::move(fields[3]));
    return plugin;
}

}  // namespace

DebugConfiguration ParseDebugConfiguration(std::istream& input) {
    DebugConfiguration configuration;
    std::string line;
    for (int number = 1; std::getline(input, line); ++number) {
        boost::algorithm::trim(line);
        if (line.empty()) {
            continue;
        }
        try {
            std::vector<std::string> fields = Split(line, ":");
            if (fields.size() == kFields) {
                configuration.entries.push_back(Describe(fields, number));
            } else {
                configuration.skipped.push_back({number, line, {}});
            }
        } catch (const boost::escaped_list_error& e) {
            configuration.skipped.push_back({number, line, e.what()});
        }
    }
    configuration.isCutShort = input.bad();
    return configuration;
}

DebugConfiguration ReadDebugConfiguration(const std::string& path) {
    // A pipe would be waited for, and a device read without end.
    posix::Descriptor file = posix::OpenRegularFile(path, O_RDONLY);
    if (!file) {
        return {};
    }
    posix::FileBuffer buffer = posix::BufferOn(std::move(file), std::ios::in);
    std::istream input(&buffer);
    return ParseDebugConfiguration(input);
}

}  // namespace lofter
