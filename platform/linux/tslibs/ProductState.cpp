#include "tslibs/productState.h"

#include <cerrno>
#include <fstream>
#include <string>

#include "tslibs/OsRelease.h"

namespace {

bool IsOpened(std::ifstream& file, const char* path) {
    do {
        errno = 0;
        file.open(path);
    } while (!file.is_open() && errno == EINTR);
    return file.is_open();
}

// A field of /etc/os-release, or of /usr/lib/os-release where that is missing; empty when there is none.
std::string OsRelease(const std::string& field) {
    std::ifstream file;
    if (IsOpened(file, "/etc/os-release") || IsOpened(file, "/usr/lib/os-release")) {
        return platform::OsReleaseField(file, field);
    }
    return {};
}

}  // namespace

const char* ProductState_GetName() {
    static const std::string& name = *new std::string(OsRelease("NAME"));
    return name.c_str();
}

const char* ProductState_GetVersion() {
    static const std::string& version = *new std::string(OsRelease("VERSION_ID"));
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
