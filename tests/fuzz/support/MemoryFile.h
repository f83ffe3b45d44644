// A file in memory, for parsers that take a path. It has no name in any folder, so nothing is left behind.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

#include <sys/mman.h>
#include <unistd.h>

#include "posix/Descriptor.h"

namespace lofter::fuzz {

class MemoryFile {
  public:
    MemoryFile() : file(::memfd_create("fuzz", MFD_CLOEXEC)) {
        if (!file) {
            throw std::runtime_error("no file in memory");
        }
    }

    std::string Path() const { return "/proc/self/fd/" + std::to_string(file.Get()); }

    void Replace(std::string_view content) const {
        if (::ftruncate(file.Get(), 0) != 0 ||
            ::pwrite(file.Get(), content.data(), content.size(), 0) != static_cast<ssize_t>(content.size())) {
            throw std::runtime_error("a file in memory cannot be written");
        }
    }

  private:
    const posix::Descriptor file;
};

}  // namespace lofter::fuzz
