#include "tslibs/productState.h"

#include <memory>
#include <string>

#include <glib.h>

namespace {

// A field of /etc/os-release, or of /usr/lib/os-release where that is missing; empty when neither has it.
std::string OsRelease(const char* field) {
    const std::unique_ptr<char, decltype(&g_free)> value(g_get_os_info(field), &g_free);
    return value ? value.get() : "";
}

}  // namespace

const char* ProductState_GetName() {
    static const std::string& name = *new std::string(OsRelease(G_OS_INFO_KEY_NAME));
    return name.c_str();
}

const char* ProductState_GetVersion() {
    static const std::string& version = *new std::string(OsRelease(G_OS_INFO_KEY_VERSION_ID));
    return version.c_str();
}

const char* ProductState_GetBuildNumberString() {
    static const std::string& build = *new std::string(OsRelease("BUILD_ID"));
    return build.c_str();
}

const char* ProductState_GetCompilationOption() {
#ifdef NDEBUG
    return "release";
#else
    return "debug";
#endif
}
