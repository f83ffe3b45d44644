// The plugins of a host as its files describe them, and what is worth saying about the files.
#pragma once

#include <vector>

#include "analysis/Boot.h"
#include "analysis/Finding.h"
#include "input/Options.h"

namespace lofter::analyze {

struct Host {
    std::vector<BootPlugin> plugins;  // in the order in which lofter processes their files
    std::vector<Finding> findings;
};

// Reads the plugin directory and the debug configuration. Throws InputError when the plugin directory cannot be read.
Host ReadHost(const InputOptions& options);

}  // namespace lofter::analyze
