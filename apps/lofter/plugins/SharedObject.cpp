#include "plugins/SharedObject.h"

#include <filesystem>
#include <fstream>

#include <dlfcn.h>

#include "plugins/Exception.h"
#include "plugins/ObjectFile.h"
#include "posix/AcrossSignals.h"

namespace lofter {

namespace {

bool IsCutShort(const std::string& path) {
    std::error_code failure;
    std::ifstream file;
    if (std::filesystem::is_regular_file(path, failure)) {
        posix::OpenAcrossSignals(file, path, std::ios::in | std::ios::binary);
    }
    return file.is_open() && EndsBeforeItsContents(file);
}

// A pipe or a device, which the loader would wait for. The loader has a reason of its own for everything else.
bool IsSpecialFile(const std::string& path) {
    std::error_code failure;
    const std::filesystem::file_status status = std::filesystem::status(path, failure);
    return std::filesystem::exists(status) && std::filesystem::is_other(status);
}

std::string LoaderReason() {
    const char* reason = dlerror();
    return reason != nullptr ? reason : "";
}

}  // namespace

void SharedObject::Unload::operator()(void* object) const {
    // An object that refuses to go stays, which harms nobody: it was only looked at.
    dlclose(object);
}

SharedObject::SharedObject(const std::string& objectPath) : path(objectPath) {
    if (IsSpecialFile(path)) {
        throw InvalidPluginException(path, path + ": not a regular file");
    }
    if (IsCutShort(path)) {
        throw InvalidPluginException(path, path + ": file too short");  // the loader's own words for shorter ones
    }
    dlerror();
    handle.reset(dlopen(path.c_str(), RTLD_LAZY | RTLD_GLOBAL));
    if (handle == nullptr) {
        throw InvalidPluginException(path, LoaderReason());
    }
}

const void* SharedObject::Symbol(const std::string& symbol) const {
    dlerror();  // the object's constructors may have left an error of their own
    const void* address = dlsym(handle.get(), symbol.c_str());
    std::string reason = LoaderReason();
    if (reason.empty() && address == nullptr) {
        reason = "its address is null";
    }
    if (!reason.empty()) {
        throw Exception("Failed loading symbol: " + symbol + " Located at: " + path + " Reason: " + reason);
    }
    return address;
}

}  // namespace lofter
