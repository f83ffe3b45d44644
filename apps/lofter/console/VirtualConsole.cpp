#include "console/VirtualConsole.h"

#include <linux/vt.h>
#include <sys/ioctl.h>

#include "posix/File.h"

namespace lofter {

void SwitchConsole(int terminal, const char* console) {
    const posix::Descriptor device = posix::OpenFile(console, O_RDWR);
    if (!device) {
        return;
    }
    // Kept on purpose: the wait is the fallback of a switch that was refused, not the second half of one that was made.
    if (::ioctl(device.Get(), VT_ACTIVATE, terminal) != 0) {
        ::ioctl(device.Get(), VT_WAITACTIVE, terminal);
    }
}

}  // namespace lofter
