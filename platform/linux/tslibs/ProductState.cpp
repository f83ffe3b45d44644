#include "tslibs/productState.h"

#include <sstream>
#include <string>

#include <fcntl.h>

#include "posix/Descriptor.h"
#include "posix/File.h"
#include "tslibs/OsRelease.h"

namespace {

// A field of /etc/os-release, or of /usr/lib/os-release where that is missing; empty when there is none.
std::string OsRelease(const std::string& field) {
    for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
        if (const posix::Descriptor file = posix::OpenRegularFile(path, O_RDONLY)) {
            std::istringstream text(posix::ReadWhole(file).value_or(""));
            return platform::OsReleaseField(text, field);
        }
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
