// What is worth saying about the text of a JSON plugin: where it is wrong, and members that lofter does not look at.
#pragma once

#include <string>
#include <vector>

#include "analysis/Finding.h"
#include "input/JsonPlaces.h"
#include "plugins/description/PluginDescription.h"

namespace lofter::analyze {

// The rejection of a text for that reason, with what the reason does not say.
struct JsonRejection {
    std::string text;
    TextPosition position;
    bool isDocument;  // whether the text is valid JSON at least
};
JsonRejection LocateRejection(const std::string& text, const std::string& reason);

// Rule "unknown-member". The parts are those of the plugin's file.
std::vector<Finding> FindUnknownMembers(const PluginDescription& plugin, const JsonPart& root);

// Where something of the file stands.
Place PlaceIn(const PluginDescription& plugin, const TextPosition& position);

}  // namespace lofter::analyze
