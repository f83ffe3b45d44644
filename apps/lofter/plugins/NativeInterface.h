// What a native plugin says about itself: its block of metadata and its table of operations, copied out of the object.
//
// The block comes from outside and may end early, so nothing but the version is read before the version is known, and
// the members of a release only when the version has them. Lists end with a null pointer and texts with a NUL; that the
// plugin's pointers lead to such is taken for granted here: an object whose do not has not come through its trial.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace lofter {

struct NativeInterface {
    std::int32_t version;
    bool hasHostProfileOperation;
    std::vector<std::string> providedBarriers;
    std::vector<std::string> requiredBarriers;

    // Of a release: empty for versions that know of none.
    std::string release;
    bool runOnce = false;
    std::set<std::string> requiredFlags;
    std::set<std::string> disablingFlags;
};

// Reads the two symbols of a plugin. Nothing when the version is none that is supported.
std::optional<NativeInterface> ReadNativeInterface(const void* metadata, const void* operations);

// Loads the object of a plugin, reads them, and unloads it. Throws what SharedObject throws. What the object does to
// the process in passing is put back, as far as ProcessState goes.
std::optional<NativeInterface> LoadNativeInterface(const std::string& path);

}  // namespace lofter
