// The files of a host, below a directory that stands for its "/".
//
// Links lead where they would lead on the host, and neither they nor ".." lead out of the directory. Nothing waits:
// a pipe or a device in a file's place is no file. Paths are the host's, absolute. What fails says why in errno.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <sys/stat.h>

#include "input/Options.h"
#include "posix/Descriptor.h"

namespace lofter::analyze {

class HostRoot {
  public:
    // The directory is a path here. Throws InputError when it cannot be opened.
    explicit HostRoot(const std::string& directory);

    // A regular file, to be read; nothing for what is none: ENXIO, or EISDIR for a directory.
    posix::Descriptor OpenFile(const std::string& path) const;

    // A regular file's content. Nothing when it cannot be opened or read, or is longer than the longest: EFBIG.
    std::optional<std::string> ReadFile(const std::string& path, std::size_t longest) const;

    // In the directory's order; nothing when it cannot be read.
    std::optional<std::vector<std::string>> FileNames(const std::string& path) const;

    // Of what is behind the links.
    std::optional<struct stat> Status(const std::string& path) const;

  private:
    posix::Descriptor Open(const std::string& path, int flags) const;

    posix::Descriptor directory;
};

// Nothing when the inputs name single files or directories only, so that no host's root is to be looked into.
std::optional<HostRoot> OpenRoot(const InputOptions& options);

}  // namespace lofter::analyze
