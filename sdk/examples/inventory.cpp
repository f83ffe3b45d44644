// A plugin in C++: records on which kernel and machine the host booted, once "hello" is reached.
//
// An exception that left the operation would abort its process, and all that the boot log could tell is the signal. So
// the operation contains its exceptions, says what went wrong and fails with a number.
#include <cerrno>
#include <exception>
#include <fstream>
#include <iostream>
#include <system_error>

#include <lofter/plugin.h>
#include <sys/utsname.h>

namespace {

utsname System() {
    utsname system;
    if (uname(&system) != 0) {
        throw std::system_error(errno, std::generic_category(), "uname");
    }
    return system;
}

int Start() try {
    const utsname system = System();
    std::ofstream record;
    record.exceptions(std::ios::failbit | std::ios::badbit);
    record.open("/var/run/inventory");
    record << "kernel " << system.release << "\nmachine " << system.machine << '\n' << std::flush;
    return 0;
} catch (const std::exception& failure) {
    std::cerr << "inventory: " << failure.what() << '\n';
    return 1;
}

}  // namespace

LOFTER_PLUGIN(Start, LOFTER_LIST("hello"), LOFTER_LIST("inventory"));
