#include "input/NativeFile.h"

#include <cstddef>
#include <utility>

#include <lofter/plugin.h>

#include "base/Exception.h"

namespace lofter::analyze {

namespace {

constexpr std::size_t kLongestText = std::size_t{1} * 1024 * 1024;
constexpr std::size_t kMostTexts = std::size_t{16} * 1024 * 1024;  // bytes of all texts, pointers included
constexpr std::size_t kPointer = sizeof(void*);

using Kind = ElfObject::Pointer::Kind;

[[noreturn]] void Reject(const std::string& text) {
    throw BadObject(BadObject::Fault::Content, text);
}

// Reads the two symbols, in the order in which loaded objects are read.
class InterfaceReader {
  public:
    InterfaceReader(const ElfObject& readObject, PluginDescription& described)
        : object(readObject), plugin(described) {}

    void Read() {
        operations = AddressOf("operations");
        metadata = AddressOf("metadata");
        const std::optional<std::uint64_t> version =
            object.Number(Member(offsetof(lofter_metadata, version)), sizeof lofter_metadata::version);
        if (!version) {
            Reject("metadata leads out of the file");
        }
        if (*version < LOFTER_VERSION_BASIC || *version > LOFTER_VERSION_LATEST) {
            Reject("Unsupported API version");
        }
        plugin.version = static_cast<std::int32_t>(*version);
        plugin.hasHostProfileOperation = *version >= LOFTER_VERSION_HOST_PROFILE && HasHostProfileOperation();
        for (std::string& barrier : List("provided barriers", offsetof(lofter_metadata, provided_barriers))) {
            plugin.Provide(std::move(barrier));
        }
        for (std::string& barrier : List("required barriers", offsetof(lofter_metadata, required_barriers))) {
            plugin.Require(std::move(barrier));
        }
        if (*version >= LOFTER_VERSION_RELEASE) {
            ReadRelease();
        }
    }

    // What keeps the operations from being run, though lofter takes the object; empty when nothing does.
    std::string FaultOfOperations() const {
        const auto isWild = [&](std::size_t offset) {
            return object.PointerAt(operations + offset).kind == Kind::Wild;
        };
        if (isWild(offsetof(lofter_operations, start))) {
            return "the operation start leads out of the file";
        }
        if (plugin.hasHostProfileOperation && isWild(offsetof(lofter_operations, apply_host_profile))) {
            return "the operation apply_host_profile leads out of the file";
        }
        const bool hasStart = object.PointerAt(operations + offsetof(lofter_operations, start)).kind != Kind::Null;
        return hasStart ? "" : "the operation start is missing";
    }

  private:
    std::uint64_t Member(std::size_t offset) const { return metadata + offset; }

    std::uint64_t AddressOf(const std::string& symbol) const {
        const std::optional<std::uint64_t> address = object.Symbol(symbol);
        if (!address) {
            Reject("the symbol \"" + symbol + "\" is missing");
        }
        return *address;
    }

    bool HasHostProfileOperation() const {
        const std::uint64_t entry = operations + offsetof(lofter_operations, apply_host_profile);
        if (!object.Number(entry, kPointer)) {
            Reject("operations leads out of the file");
        }
        return object.PointerAt(entry).kind != Kind::Null;
    }

    void ReadRelease() {
        for (std::string& flag : List("required flags", offsetof(lofter_metadata, required_flags))) {
            plugin.requiredFlags.insert(std::move(flag));
        }
        for (std::string& flag : List("disabling flags", offsetof(lofter_metadata, disabling_flags))) {
            plugin.disablingFlags.insert(std::move(flag));
        }
        const auto runOnce =
            object.Number(Member(offsetof(lofter_metadata, run_once)), sizeof lofter_metadata::run_once);
        if (!runOnce) {
            Reject("metadata leads out of the file");
        }
        plugin.runOnce = *runOnce != 0;
        plugin.release =
            TextBehind("the plugin's version", Member(offsetof(lofter_metadata, plugin_version))).value_or("");
    }

    // Nothing for a null pointer.
    std::optional<std::uint64_t> Follow(const std::string& what, std::uint64_t address) const {
        const ElfObject::Pointer pointer = object.PointerAt(address);
        switch (pointer.kind) {
            case Kind::Null:
                return std::nullopt;
            case Kind::Inside:
                return pointer.address;
            case Kind::Elsewhere:
                Reject(what + " leads into another object");
            case Kind::Wild:
                break;
        }
        Reject(what + " leads out of the file");
    }

    std::optional<std::string> TextBehind(const std::string& what, std::uint64_t address) {
        const std::optional<std::uint64_t> start = Follow(what, address);
        if (!start) {
            return std::nullopt;
        }
        std::optional<std::string> text = object.Text(*start, kLongestText);
        if (!text) {
            Reject(what + " has a text without an end");
        }
        texts += kPointer + text->size();
        if (texts > kMostTexts) {
            Reject(what + " is too long");
        }
        return text;
    }

    std::vector<std::string> List(const std::string& name, std::size_t offset) {
        const std::string what = "the list of " + name;
        const std::optional<std::uint64_t> start = Follow(what, Member(offset));
        std::vector<std::string> list;
        for (std::uint64_t at = start.value_or(0); start; at += kPointer) {
            std::optional<std::string> text = TextBehind(what, at);
            if (!text) {
                break;
            }
            list.push_back(*std::move(text));
        }
        return list;
    }

    const ElfObject& object;
    PluginDescription& plugin;
    std::uint64_t operations = 0;
    std::uint64_t metadata = 0;
    std::size_t texts = 0;
};

}  // namespace

void RejectPlugin(PluginDescription& plugin, const std::string& reason) {
    PluginDescription rejected(plugin.kind, plugin.name, plugin.path);
    rejected.failure = std::make_exception_ptr(InvalidPluginException(plugin.path, reason));
    plugin = std::move(rejected);
}

NativeFile ReadNativeFile(const std::string& name, const std::string& path, posix::Descriptor file) {
    NativeFile native{PluginDescription(PluginKind::Native, name, path), ReadElfMachine(file), {}, {}, {}, {}};
    try {
        const ElfObject object(std::move(file));
        native.neededLibraries = object.NeededLibraries();
        native.searchPaths = object.SearchPaths();
        InterfaceReader reader(object, native.description);
        reader.Read();
        native.fault = reader.FaultOfOperations();
        native.rule = native.fault.empty() ? "" : "native-interface";
    } catch (const BadObject& e) {
        native.rule = e.WhichFault() == BadObject::Fault::NoObject ? "unreadable" : "native-interface";
        native.fault = e.what();
        RejectPlugin(native.description, native.fault);
    }
    return native;
}

}  // namespace lofter::analyze
