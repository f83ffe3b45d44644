// What several commands ask and say in the same way. The texts begin with the command's name.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "analysis/Boot.h"

namespace lofter::analyze {

// Throws NoAnswerError unless there is a log in which a plugin ran.
void RequireLog(const Boot& boot, const std::string& command);

// The plugins of that name. Throws NoAnswerError when there is none.
std::vector<PluginIndex> RequirePlugins(const Boot& boot, const std::string& command, const std::string& name);

// The barriers that the plugin requires, each once, in reading order.
std::vector<std::string> RequiredBarriers(const Boot& boot, PluginIndex plugin);

std::vector<std::string> NamesOf(const Boot& boot, const std::vector<PluginIndex>& plugins);

// The names as they are shown, separated by ", ".
std::string Listed(const std::vector<std::string>& names);

// "-" for what is not known.
std::string ShownOrDash(const std::optional<Microseconds>& duration);

// "native", "json" or "debug"; nothing when it is not known.
std::optional<std::string> KindOf(const BootPlugin& plugin);

// "1 plugin", "2 plugins"
std::string Counted(std::size_t number, const std::string& thing);

// Adds "--threads N", at least one.
void AddThreadsOption(CLI::App& part, std::optional<std::size_t>& threads);

}  // namespace lofter::analyze
