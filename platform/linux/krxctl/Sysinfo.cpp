#include "krxctl/Sysinfo.h"

#include <stdexcept>

#include "krxctl/KernelLog.h"

namespace KrxCtl::Util {

Sysinfo::Sysinfo(const std::string& node) {
    if (node != "syslog") {
        throw std::runtime_error("unknown system information node: " + node);
    }
}

void Sysinfo::AddInput(const std::string& text) {
    inputs.push_back(text);
}

void Sysinfo::Set() {
    platform::WriteKernelLog(platform::kKernelLog, inputs);
}

}  // namespace KrxCtl::Util
