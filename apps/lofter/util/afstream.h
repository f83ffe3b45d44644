// An output file stream that never writes its destination in place.
//
// Opening creates a uniquely named temporary file beside the destination; commit() syncs it and moves it over the
// destination in one step, with the permissions that the old destination had, but without its set-id and sticky bits. A
// stream that is destroyed without a commit removes its temporary file and leaves the destination as it was. One stream
// is used by one thread; several may write the same destination, and the last commit wins.
//
// Failures are std::runtime_error. The destination is not touched before the rename.
#pragma once

#include <ostream>
#include <string>

#include "posix/Descriptor.h"
#include "posix/FileBuffer.h"

namespace lofter {

class afstream : public std::ostream {
  public:
    afstream();
    ~afstream() override;

    // Creates the temporary file and opens the stream on it. An earlier one of this stream is discarded. Throws
    //   "insufficient memory to allocate buffer",
    //   "unable to allocate mkstemp pattern",
    //   "unable to create temporary file to write '<path>': <reason>" and
    //   "failed to create temp file: <reason>",
    // with errno as the failed call left it.
    void open(const char* path, std::ios_base::openmode mode);

    // As open, and copies the destination's current content into the stream. The destination must be a regular file and
    // not empty. Throws what open throws, and "failed to write to temp file: <reason>".
    void reopen(const char* path, std::ios_base::openmode mode);

    // Flushes, syncs and renames. The state of the stream before is the writer's to check. Throws
    //   "commit invoked on an unknown destination",
    //   "unable to sync '<temporary file>': <reason>",
    //   "unable to rename '<temporary file>' to '<path>': <reason>" and, with the new content in place,
    //   "failed to restore file permissions, file permissions may be incorrect: <reason>".
    void commit();

  private:
    void CreateTemporaryFile(const char* path);
    void Discard();

    posix::FileBuffer file;
    posix::Descriptor temporary;  // to the end: by its name it may be another file by now
    std::string tempName;         // empty until an open succeeded in creating it
    std::string destination;      // empty as long as tempName
};

}  // namespace lofter
