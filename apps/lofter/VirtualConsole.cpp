#include "VirtualConsole.h"

#include <fcntl.h>
#include <linux/vt.h>
#include <sys/ioctl.h>

#include "util/AcrossSignals.h"
#include "util/Descriptor.h"

namespace lofter {

void SwitchConsole(int terminal, const char* console) {
    const Descriptor device(AcrossSignals([&] { return ::open(console, O_RDWR | O_NOCTTY | O_CLOEXEC); }));
    if (!device) {
        return;
    }
    // Kept on purpose: the wait is the fallback of a switch that was refused, not the second half of one that was made.
    if (::ioctl(device.Get(), VT_ACTIVATE, terminal) != 0) {
        ::ioctl(device.Get(), VT_WAITACTIVE, terminal);
    }
}

}  // namespace lofter
