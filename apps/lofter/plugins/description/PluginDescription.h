// What a plugin file, or a line of the debug configuration, says: a value without a graph, settings or a process.
//
// Reading may fail half-way. What was read up to there stands in the description all the same, with the exception
// beside it: the barrier links of a rejected plugin count.
#pragma once

#include <cstdint>
#include <exception>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace lofter {

struct BarrierLink {
    enum class Direction { Requires, Provides };

    Direction direction;
    std::string barrier;

    bool operator==(const BarrierLink&) const = default;
};

enum class PluginKind { Native, Json, Debug, Daemon };

struct PluginDescription {
    PluginDescription(PluginKind pluginKind, std::string pluginName, std::string filePath = {})
        : kind(pluginKind), name(std::move(pluginName)), path(std::move(filePath)) {}

    PluginKind kind;
    std::string name;
    std::string path;                // of the file; empty when it has none of its own
    int line = 0;                    // in the debug configuration, counted from 1; 0 for all others
    std::int32_t version = -1;       // of the plugin interface; -1 until it was read
    std::vector<BarrierLink> links;  // in reading order

    // Of a release: empty for versions that know of none.
    bool runOnce = false;
    std::string release;
    std::set<std::string> requiredFlags;
    std::set<std::string> disablingFlags;

    // Operations: the host commands of a JSON plugin, the one shell command of a debug plugin. A native plugin says
    // only whether there is one for host profiles, which its interface version must know of.
    std::vector<std::string> startCommands;
    std::vector<std::string> hostProfileCommands;
    bool hasHostProfileOperation = false;

    std::exception_ptr failure;  // why the rest could not be read; null when all was

    void Require(std::string barrier) { links.push_back({BarrierLink::Direction::Requires, std::move(barrier)}); }
    void Provide(std::string barrier) { links.push_back({BarrierLink::Direction::Provides, std::move(barrier)}); }
};

}  // namespace lofter
