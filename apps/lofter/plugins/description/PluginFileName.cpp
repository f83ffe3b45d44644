#include "plugins/description/PluginFileName.h"

namespace lofter {

namespace {

std::optional<PluginKind> KindOf(const std::string& extension) {
    if (extension == "so") {
        return PluginKind::Native;
    }
    if (extension == "json") {
        return PluginKind::Json;
    }
    if (extension == "debug") {
        return PluginKind::Debug;
    }
    return std::nullopt;
}

}  // namespace

std::optional<PluginFileName> ParsePluginFileName(const std::string& fileName) {
    const std::size_t dot = fileName.rfind('.');
    if (dot == std::string::npos) {
        return std::nullopt;
    }
    PluginFileName parsed{fileName.substr(0, dot), fileName.substr(dot + 1), std::nullopt};
    parsed.kind = KindOf(parsed.extension);
    if (parsed.plugin.starts_with("lib")) {
        parsed.plugin.erase(0, 3);
    }
    return parsed;
}

}  // namespace lofter
