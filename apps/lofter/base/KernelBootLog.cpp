#include "base/KernelBootLog.h"

#include <cstdarg>
#include <cstdlib>
#include <exception>
#include <memory>

#include "base/Logging.h"
#include "krxctl/Sysinfo.h"
#include "tslibs/str.h"

namespace lofter {

namespace {

constexpr char kSystemLogNode[] = "syslog";

}  // namespace

void KernelBootLog(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::unique_ptr<char, decltype(&std::free)> text(Str_SafeVasprintf(nullptr, format, arguments), &std::free);
    va_end(arguments);
    try {
        KrxCtl::Util::Sysinfo node(kSystemLogNode);
        node.AddInput(text.get());
        node.Set();
    } catch (const std::exception& e) {
        Log_Syslog(kWarning, "Exception occurred while logging msg: %s", e.what());
    } catch (...) {
        Log_Syslog(kWarning, "Unexpected exception while logging msg");
    }
}

}  // namespace lofter
