// A stream buffer on a file that is open already: what was opened, and looked at, is what is read or written.
#pragma once

#include <ios>
#include <utility>

#include <ext/stdio_filebuf.h>

#include "posix/Descriptor.h"

namespace posix {

using FileBuffer = __gnu_cxx::stdio_filebuf<char>;

// The buffer owns the file and closes it. It is not open when the file is not, or when it cannot be had; the reason of
// the latter is in errno. Throws std::bad_alloc.
inline FileBuffer BufferOn(Descriptor file, std::ios_base::openmode mode) {
    const int number = file.Release();  // closed by the buffer also when it is not completed
    FileBuffer buffer(number, mode);
    if (!buffer.is_open()) {
        file.Reset(number);
    }
    return buffer;
}

}  // namespace posix
