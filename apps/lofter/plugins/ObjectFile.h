// The file of a shared object, looked at before the loader gets it.
#pragma once

#include <istream>

namespace lofter {

// Whether the file ends before its contents do. The loader maps such a file without complaint and the first access
// beyond its end kills the process, which here is the host's boot; a full disk during an update is enough to leave one
// behind. False for everything that the loader rejects by itself.
bool EndsBeforeItsContents(std::istream& file);

}  // namespace lofter
