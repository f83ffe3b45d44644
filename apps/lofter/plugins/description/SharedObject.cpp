#include "plugins/description/SharedObject.h"

#include <dlfcn.h>

#include "base/Exception.h"

namespace lofter {

namespace {

// What a constructor of the object throws ends the process here: passing through the loader, it would leave that
// locked.
void* Open(const char* path) noexcept {
    return dlopen(path, RTLD_LAZY | RTLD_GLOBAL);
}

std::string LoaderReason() {
    const char* reason = dlerror();
    return reason != nullptr ? reason : "";
}

}  // namespace

void SharedObject::Unload::operator()(void* object) const {
    dlclose(object);
}

SharedObject::SharedObject(const std::string& objectPath) : path(objectPath) {
    dlerror();
    handle.reset(Open(path.c_str()));
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
