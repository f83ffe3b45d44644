// Native plugins, described by the file of their object: as if it had been loaded, but nothing of it is run.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "input/ElfObject.h"
#include "plugins/description/PluginDescription.h"
#include "posix/Descriptor.h"

namespace lofter::analyze {

struct NativeFile {
    PluginDescription description;
    std::optional<ElfMachine> machine;  // of a file that begins as an object does
    std::vector<std::string> neededLibraries;
    std::vector<std::string> searchPaths;

    // What is wrong with it, and by which rule; empty when nothing is. When lofter takes the object all the same, and
    // only its operations cannot be run, the description is whole; otherwise its failure has the text, too.
    std::string rule;
    std::string fault;
};

// The file is a regular one. The path is the one to be shown.
NativeFile ReadNativeFile(const std::string& name, const std::string& path, posix::Descriptor file);

// Makes it one that lofter rejects for that reason.
void RejectPlugin(PluginDescription& plugin, const std::string& reason);

}  // namespace lofter::analyze
