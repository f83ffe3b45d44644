// The bytes are a native plugin's file: a length in two bytes and so much of an object, into which the rest writes
// itself: an offset in two bytes, a length in one, and so many bytes.
//
// Reading ends; what is not told to be wrong holds together; and a file that is read twice says the same.
#include <string>

#include <sys/mman.h>
#include <unistd.h>

#include "input/NativeFile.h"
#include "posix/File.h"
#include "support/Bytes.h"
#include "support/MemoryFile.h"
#include "support/Require.h"

namespace lofter::fuzz {
namespace {

std::size_t Number(Bytes& bytes) {
    const std::size_t low = bytes.Byte();
    return low | std::size_t{bytes.Byte()} << 8U;
}

// So that one change of one field is one short change of the input.
std::string Changed(Bytes& bytes) {
    std::string content = bytes.Text(Number(bytes));
    while (!bytes.Empty() && !content.empty()) {
        const std::size_t offset = Number(bytes) % content.size();
        const std::string change = bytes.Text(bytes.Byte());
        content.replace(offset, std::min(change.size(), content.size() - offset), change, 0,
                        std::min(change.size(), content.size() - offset));
    }
    return content;
}

analyze::NativeFile Read(const MemoryFile& file) {
    return analyze::ReadNativeFile("fuzzed", "/fuzzed.so", posix::OpenRegularFile(file.Path(), O_RDONLY));
}

void HoldsTogether(const analyze::NativeFile& file) {
    const PluginDescription& plugin = file.description;
    Require(file.rule.empty() == file.fault.empty(), "a fault has a rule");
    Require(file.rule.empty() || file.rule == "unreadable" || file.rule == "native-interface",
            "the rule is one of two");
    if (plugin.failure) {
        Require(!file.fault.empty(), "a rejection has a reason");
        Require(plugin.links.empty() && plugin.version == -1, "nothing of what is rejected counts");
        return;
    }
    Require(file.machine.has_value(), "an object is for a machine");
    Require(plugin.version >= 1 && plugin.version <= 4, "the version is supported");
    Require(plugin.version >= 2 || !plugin.hasHostProfileOperation, "version 1 knows no host profiles");
    Require(plugin.version >= 3 || (plugin.requiredFlags.empty() && plugin.disablingFlags.empty() && !plugin.runOnce &&
                                    plugin.release.empty()),
            "versions below 3 have neither flags nor a release");
}

}  // namespace
}  // namespace lofter::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lofter::fuzz;
    static const MemoryFile file;
    Bytes bytes(data, size);
    file.Replace(Changed(bytes));
    const auto read = Read(file);
    HoldsTogether(read);
    const auto again = Read(file);
    Require(again.fault == read.fault && again.description.links == read.description.links, "the same twice");
    return 0;
}
