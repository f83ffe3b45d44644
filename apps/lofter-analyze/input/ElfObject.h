// A shared object, read from its file alone: nothing of it is run, whatever machine it is for.
//
// What is asked for by address is what would be there once the loader has put the object at address 0 and applied its
// relocations. Nothing in the file is trusted: what is not in it reads as nothing. 64-bit little-endian objects only.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <elf.h>

#include "base/Exception.h"
#include "posix/Descriptor.h"

namespace lofter::analyze {

// What an object is for: the loader of a machine takes what is for the same, and nothing else.
struct ElfMachine {
    unsigned number = EM_NONE;
    bool is64Bit = true;
    bool isLittleEndian = true;

    bool operator==(const ElfMachine&) const = default;
    bool operator<(const ElfMachine& other) const {
        return std::tie(number, is64Bit, isLittleEndian) < std::tie(other.number, other.is64Bit, other.isLittleEndian);
    }
};

// "AArch64", "x86-64" and the like; "machine 4711" for what has no name here.
std::string ShownMachine(const ElfMachine& machine);

// Of a file that begins as an object does; nothing for any other.
std::optional<ElfMachine> ReadElfMachine(const posix::Descriptor& file);

// A file that is no object, or is cut off, or that has in it what no object has.
class BadObject : public Exception {
  public:
    enum class Fault { NoObject, Content };
    BadObject(Fault objectFault, const std::string& text) : Exception(text), fault(objectFault) {}
    Fault WhichFault() const { return fault; }

  private:
    Fault fault;
};

class ElfObject {
  public:
    // The file is a regular one. Throws BadObject, where loaders say so with their text.
    explicit ElfObject(posix::Descriptor objectFile);

    // Libraries that the loader has to find, in their order, and where it looks first: as the file says it.
    const std::vector<std::string>& NeededLibraries() const { return needed; }
    const std::vector<std::string>& SearchPaths() const { return searchPaths; }

    // Where the exported symbol is; nothing when there is none of that name.
    std::optional<std::uint64_t> Symbol(const std::string& name) const;

    // A number of so many bytes; nothing when they are not all in one segment of the object.
    std::optional<std::uint64_t> Number(std::uint64_t address, std::size_t bytes) const;

    // Up to the NUL behind it; nothing when there is none within so many bytes.
    std::optional<std::string> Text(std::uint64_t address, std::size_t longest) const;

    struct Pointer {
        enum class Kind { Null, Inside, Elsewhere, Wild };

        Kind kind = Kind::Null;
        std::uint64_t address = 0;  // of what it points to inside
    };
    // Elsewhere is in another object, which the loader finds. Wild leads to no object, or is outside of this one
    // itself.
    Pointer PointerAt(std::uint64_t address) const;

  private:
    struct Relocation {
        std::uint64_t address;
        std::uint32_t symbol;
        std::optional<std::uint64_t> addend;  // nothing when it is what stands there
    };

    std::uint64_t FileSize() const;
    std::optional<std::string> FileBytes(std::uint64_t offset, std::uint64_t size) const;
    template <typename Record>
    std::vector<Record> Records(const std::string& bytes, int type) const;
    template <typename Record>
    std::vector<Record> Table(std::int64_t addressTag, std::uint64_t size, int type, const char* what) const;

    void ReadSegments(const Elf64_Ehdr& header);
    void ReadDynamicSection();
    void ReadNames();
    void ReadSymbols();
    std::uint64_t SymbolCount() const;
    std::uint64_t CountOfHashTable(std::uint64_t address) const;
    void ReadRelocations();
    void ReadRelocationTable(std::int64_t tag, std::int64_t sizeTag, bool hasAddends);
    void ReadPackedRelocations();
    void AddRelocation(std::uint64_t address, std::uint64_t info, std::optional<std::uint64_t> addend);

    const Elf64_Phdr* SegmentOf(std::uint64_t address, std::uint64_t size) const;
    std::optional<std::string> Bytes(std::uint64_t address, std::uint64_t size) const;
    std::uint64_t Dynamic(std::int64_t tag) const;
    std::string NameAt(std::uint64_t offset) const;
    bool IsPacked(std::uint64_t address) const;

    const posix::Descriptor file;
    std::uint64_t fileSize = 0;
    unsigned machine = EM_NONE;
    std::vector<Elf64_Phdr> segments;  // those that are loaded
    std::optional<Elf64_Phdr> dynamicSegment;
    std::vector<Elf64_Dyn> dynamic;
    std::string names;
    std::vector<Elf64_Sym> symbols;
    std::vector<Relocation> relocations;                          // by address
    std::vector<std::pair<std::uint64_t, std::uint64_t>> packed;  // an address, and which of the 64 words from it on
    std::vector<std::string> needed;
    std::vector<std::string> searchPaths;
};

}  // namespace lofter::analyze
