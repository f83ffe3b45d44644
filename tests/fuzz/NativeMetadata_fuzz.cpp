// The bytes become the metadata block and the operations table of a native plugin, as a compiler of ill will lays them
// out: any version, any byte where a flag or padding is, lists that are missing, empty or repeat themselves, texts of
// any bytes. Only what the interface promises is kept: a block is as long as its version says, a list ends with a null
// pointer, a text with a NUL. Each piece is a piece of memory of its own, so that one step too far is noticed.
//
// What is read is what was laid out, and nothing that the version has not.
#include <cstring>
#include <memory>

#include "base/Exception.h"
#include "plugins/description/NativeDescription.h"
#include "support/Bytes.h"
#include "support/Plugins.h"
#include "support/Require.h"

namespace lofter::fuzz {
namespace {

// Members at their offsets, in memory that ends where the block ends.
class Block {
  public:
    Block(std::size_t length, Bytes& filling) : bytes(new std::uint8_t[length]) {
        for (std::size_t index = 0; index < length; ++index) {
            bytes[index] = filling.Byte();
        }
    }
    template <typename Member>
    void Put(std::size_t offset, Member member) {
        std::memcpy(bytes.get() + offset, &member, sizeof member);
    }
    const void* Get() const { return bytes.get(); }

  private:
    std::unique_ptr<std::uint8_t[]> bytes;
};

class Text {
  public:
    explicit Text(const std::string& text) : letters(new char[text.size() + 1]) {
        std::memcpy(letters.get(), text.c_str(), text.size() + 1);
    }
    const char* Get() const { return letters.get(); }

  private:
    std::unique_ptr<char[]> letters;
};

// A list of texts, or no list at all.
class List {
  public:
    explicit List(Bytes& bytes) {
        constexpr std::size_t kMost = 6;
        const std::size_t length = bytes.Below(kMost + 2);
        if (length > kMost) {
            return;
        }
        pointers.reset(new const char*[length + 1]);
        for (std::size_t index = 0; index < length; ++index) {
            strings.push_back(bytes.TextUntil('\0'));
            texts.emplace_back(strings.back());
            pointers[index] = texts.back().Get();
        }
        pointers[length] = nullptr;
    }
    const char* const* Get() const { return pointers.get(); }
    const std::vector<std::string>& Strings() const { return strings; }
    std::set<std::string> StringSet() const { return {strings.begin(), strings.end()}; }

  private:
    std::vector<std::string> strings;
    std::vector<Text> texts;
    std::unique_ptr<const char*[]> pointers;
};

std::size_t LengthOf(std::uint32_t version) {
    const bool isSupported = version >= 1 && version <= 4;
    return !isSupported ? 4 : version < 3 ? 24 : 56;
}

bool IsRead(const void* metadata, const void* operations, PluginDescription& read) {
    try {
        ReadNativeInterface(metadata, operations, read);
        return true;
    } catch (const InvalidPluginException&) {
        return false;
    }
}

void IsReadAsLaidOut(std::uint32_t version, Bytes& bytes) {
    const List required(bytes);
    const List provided(bytes);
    const List requiredFlags(bytes);
    const List disablingFlags(bytes);
    const bool hasRelease = bytes.Flag();
    const std::string release = bytes.TextUntil('\0');
    const Text releaseText(release);
    const std::uint8_t runOnce = bytes.Byte();
    const std::uintptr_t hostProfile = bytes.Byte();

    Block operations(16, bytes);
    operations.Put(8, hostProfile);
    Block metadata(LengthOf(version), bytes);
    metadata.Put(0, version);
    if (LengthOf(version) >= 24) {
        metadata.Put(8, required.Get());
        metadata.Put(16, provided.Get());
    }
    if (LengthOf(version) >= 56) {
        metadata.Put(24, hasRelease ? releaseText.Get() : nullptr);
        metadata.Put(32, runOnce);
        metadata.Put(40, requiredFlags.Get());
        metadata.Put(48, disablingFlags.Get());
    }

    PluginDescription read(PluginKind::Native, "fuzzed");
    const bool isSupported = IsRead(metadata.Get(), operations.Get(), read);
    Require(isSupported == (version >= 1 && version <= 4), "versions 1 to 4 are supported, no others");
    if (!isSupported) {
        return;
    }
    const bool known = version >= 3;
    Require(read.version == static_cast<std::int32_t>(version), "version");
    Require(read.hasHostProfileOperation == (version >= 2 && hostProfile != 0), "host-profile operation");
    Require(test::Required(read) == required.Strings(), "required barriers");
    Require(test::Provided(read) == provided.Strings(), "provided barriers");
    Require(read.release == (known && hasRelease ? release : ""), "release");
    Require(read.runOnce == (known && runOnce != 0), "run once");
    Require(read.requiredFlags == (known ? requiredFlags.StringSet() : std::set<std::string>()), "required flags");
    Require(read.disablingFlags == (known ? disablingFlags.StringSet() : std::set<std::string>()), "disabling flags");
}

}  // namespace
}  // namespace lofter::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lofter::fuzz;
    Bytes bytes(data, size);
    std::uint32_t version = bytes.Byte();
    if (version >= 8) {  // seldom a version at all
        version = (version << 24U) | (static_cast<std::uint32_t>(bytes.Byte()) << 8U) | bytes.Byte();
    }
    IsReadAsLaidOut(version, bytes);
    return 0;
}
