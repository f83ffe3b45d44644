// String helpers of the host's base utility library.
#pragma once

#include <cstdarg>
#include <cstddef>

// Formats into a new buffer that the caller frees with free(). Aborts through Panic when memory runs out, so the result
// is never null. The length, without the NUL, is stored through `length` unless that is null.
char* Str_SafeVasprintf(std::size_t* length, const char* format, va_list arguments)
    __attribute__((format(printf, 2, 0)));
