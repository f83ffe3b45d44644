// A shared object in this process, unloaded when its owner goes: on every way out of whoever looks into it. An
// object that refuses to be unloaded stays.
//
// Pointers obtained from it die with it. The loader keeps its error text per thread, so objects may be used on any
// thread.
#pragma once

#include <memory>
#include <string>

namespace lofter {

class SharedObject {
  public:
    // Opens the object with lazy binding and global visibility, which runs its constructors: what one of them throws
    // aborts the process. Throws InvalidPluginException with the path and the loader's reason.
    explicit SharedObject(const std::string& objectPath);

    // The address of a data symbol, never null. Throws Exception
    // "Failed loading symbol: <symbol> Located at: <path> Reason: <reason>".
    const void* Symbol(const std::string& symbol) const;

  private:
    struct Unload {
        void operator()(void* object) const;
    };

    const std::string path;
    std::unique_ptr<void, Unload> handle;
};

}  // namespace lofter
