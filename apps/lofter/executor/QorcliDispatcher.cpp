#include "executor/QorcliDispatcher.h"

#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "base/Logging.h"
#include "base/Paths.h"

namespace lofter {

namespace {

// In the order in which they are searched.
const std::vector<std::string>& CommandDirectories() {
    static const std::vector<std::string> directories(std::begin(paths::kCommandDirectories),
                                                      std::end(paths::kCommandDirectories));
    return directories;
}

}  // namespace

QorcliDispatcher* QorcliDispatcher::Instance() {
    static const auto instance = std::make_shared<QorcliDispatcher>();
    return instance.get();
}

QorcliDispatcher::QorcliDispatcher() {
    for (const std::string& directory : CommandDirectories()) {
        try {
            AddExternalDirectory(directory);
        } catch (const std::exception& e) {
            Log_Level(kError, "unable to add external directory to the qorcli dispatcher: %s\n", e.what());
        }
    }
}

QorcliDispatcher::~QorcliDispatcher() = default;

}  // namespace lofter
