// The bytes are a whole host: what one byte stands for (a plugin directory's file of some kind, the debug
// configuration, a host command, a link, the loader's configuration, an object's file), a name, and a content up to the
// next NUL byte. The options are the first two bytes'.
//
// Whatever is in a host, it is read and verified; nothing that lies beside its root shows; and what is read twice says
// the same.
#include <array>
#include <filesystem>
#include <sstream>
#include <string>

#include <sys/stat.h>

#include "base/Exception.h"
#include "input/Host.h"
#include "input/Verification.h"
#include "support/Bytes.h"
#include "support/Require.h"
#include "support/TemporaryDirectory.h"

namespace lofter::fuzz {
namespace {

constexpr char kPlugins[] = "root/usr/libexec/lofter/plugins/";
constexpr char kBeside[] = "secret.json";

// One of a few, so that links and files meet.
std::string Name(Bytes& bytes) {
    constexpr std::array kNames = {"a", "b", "libc", "d.e", "x y", "f\x1b"};
    return kNames[bytes.Below(kNames.size())];
}

// In the place of whatever is there, and never behind a link.
void Write(const test::TemporaryDirectory& folder, const std::string& name, const std::string& content) {
    std::error_code ignored;
    std::filesystem::remove(folder / name, ignored);
    folder.Write(name, content);
}

void Link(const test::TemporaryDirectory& folder, const std::string& name, const std::string& target) {
    const std::filesystem::path path = folder.Path() / name;
    std::error_code ignored;
    std::filesystem::create_directories(path.parent_path(), ignored);
    std::filesystem::remove(path, ignored);
    std::filesystem::create_symlink(target, path, ignored);
}

void MakeEntry(const test::TemporaryDirectory& folder, Bytes& bytes) {
    constexpr std::array kTargets = {
        "/usr/libexec/lofter/plugins/a.json", "../../../../../secret.json", "a.json", "/", "b.json", "/etc/hostname"};
    const std::string plugin = kPlugins + Name(bytes);
    switch (bytes.Below(8)) {
        case 0:
            Write(folder, plugin + ".json", bytes.TextUntil('\0'));
            break;
        case 1:
            Write(folder, plugin + ".so", bytes.TextUntil('\0'));
            break;
        case 2:
            Write(folder, plugin + ".debug", "");
            break;
        case 3:
            Write(folder, "root/etc/tessel/lofter/debug.conf", bytes.TextUntil('\0'));
            break;
        case 4:
            Write(folder, "root/usr/lib/tessel/qorcli/" + Name(bytes), "");
            break;
        case 5:
            Link(folder, plugin + ".json", kTargets[bytes.Below(kTargets.size())]);
            break;
        case 6:
            Write(folder, "root/etc/ld.so.conf", bytes.TextUntil('\0'));
            break;
        default:
            ::mkfifo((folder / (plugin + ".json")).c_str(), S_IRUSR | S_IWUSR);
            break;
    }
}

analyze::InputOptions OptionsOf(Bytes& bytes, const std::string& root) {
    analyze::InputOptions options;
    options.root = root;
    options.isRootGiven = true;
    if (bytes.Flag()) {
        options.bootFlags = {"a", "boot"};
        options.disabledPlugins = {"b"};
        options.runOnce = {"a1"};
    }
    if (bytes.Flag()) {
        options.plugins = {"a.json", "../a.json", "b.so", "a.json", "/d.e.json", "c.debug"};
    }
    return options;
}

std::string Told(const analyze::InputOptions& options) {
    std::ostringstream text;
    for (const analyze::Finding& finding : analyze::Verify(options, text)) {
        text << finding.place.file << ':' << finding.place.line << ':' << finding.place.column << ": " << finding.text
             << " [" << finding.rule << "]\n";
        Require(!finding.text.empty() && !finding.place.file.empty(), "a finding says where and what");
    }
    for (const analyze::BootPlugin& plugin : analyze::ReadHost(options).plugins) {
        text << plugin.Name() << ' ' << plugin.keptOutBy << '\n';
        Require(!plugin.description.failure || !plugin.Runs(), "what is rejected does not run");
    }
    return text.str();
}

}  // namespace
}  // namespace lofter::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lofter::fuzz;
    Bytes bytes(data, size);
    const lofter::test::TemporaryDirectory folder;
    std::filesystem::create_directories(folder / kPlugins);
    const lofter::analyze::InputOptions options = OptionsOf(bytes, folder / "root");
    while (!bytes.Empty()) {
        MakeEntry(folder, bytes);
    }
    Write(folder, kBeside, "[]");
    const std::string told = Told(options);
    Write(folder, kBeside,
          R"({"metadata": {"version": 1, "requires": ["x"], "provides": []}, "operations": {"start": []}})");
    Require(told == Told(options), "the same twice, whatever is beside the root");
    return 0;
}
