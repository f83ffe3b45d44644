#include "tslibs/warning.h"

#include <cstdarg>
#include <cstdlib>

#include "tslibs/LogOutput.h"
#include "tslibs/log.h"

void Warning(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    platform::LogFormatted(platform::kWarningLevel, format, arguments);
    va_end(arguments);
}

void Panic(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    platform::LogFormatted(platform::kErrorLevel, format, arguments);
    va_end(arguments);
    if (const std::string product = platform::LoggedProduct(); !product.empty()) {
        Log_Level(platform::kErrorLevel, "panic of %s\n", product.c_str());
    }
    std::abort();
}
