#include "base/Settings.h"

#include <atomic>
#include <ctime>

#include "base/GraphLock.h"

namespace lofter {

Settings::Settings() : randomSeed(std::time(nullptr)) {}

Settings& Settings::Instance() {
    // Once created, the record is reached without the lock: a forked child must not need it.
    static std::atomic<Settings*> instance{nullptr};
    Settings* settings = instance.load(std::memory_order_acquire);
    if (settings == nullptr) {
        GraphLock lock;
        settings = instance.load(std::memory_order_relaxed);
        if (settings == nullptr) {
            settings = new Settings;
            instance.store(settings, std::memory_order_release);
        }
    }
    return *settings;
}

}  // namespace lofter
