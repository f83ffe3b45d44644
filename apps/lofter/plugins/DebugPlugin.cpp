#include "plugins/DebugPlugin.h"

#include <cstdlib>

#include <sys/wait.h>

#include "base/Exception.h"
#include "base/Logging.h"

namespace lofter {

void DebugPlugin::StartPlugin() {
    const int status = std::system(Description().startCommands.front().c_str());
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        Log_Level(kInfo, "debug injection '%s' returned %#08x\n", Name().c_str(), static_cast<unsigned>(status));
    }
}

void DebugPlugin::ApplyHostProfile() {
    throw NotImplementedException("DebugPlugin::ApplyHostProfile");
}

}  // namespace lofter
