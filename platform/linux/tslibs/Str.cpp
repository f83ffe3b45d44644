#include "tslibs/str.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "tslibs/warning.h"

char* Str_SafeVasprintf(std::size_t* length, const char* format, va_list arguments) {
    char* text = nullptr;
    const int count = ::vasprintf(&text, format, arguments);
    if (count < 0) {
        Panic("Str_SafeVasprintf: %s\n", std::strerror(errno));
    }
    if (length != nullptr) {
        *length = static_cast<std::size_t>(count);
    }
    return text;
}
