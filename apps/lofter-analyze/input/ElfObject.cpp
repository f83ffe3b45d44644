#include "input/ElfObject.h"

#include <algorithm>
#include <array>
#include <cstring>

#include <libelf.h>
#include <sys/stat.h>
#include <unistd.h>

#include "posix/AcrossSignals.h"

namespace lofter::analyze {

namespace {

// No table of an object that somebody has built is longer; one of a file that somebody has made up may be.
constexpr std::uint64_t kLongestTable = std::uint64_t{32} * 1024 * 1024;
constexpr std::uint64_t kWord = 8;
constexpr unsigned kPackedWords = 63;  // that one bitmap tells of

using Fault = BadObject::Fault;

[[noreturn]] void Reject(Fault fault, const char* text) {
    throw BadObject(fault, text);
}

std::uint64_t LittleEndian(std::string_view bytes) {
    std::uint64_t number = 0;
    for (std::size_t index = bytes.size(); index-- > 0;) {
        number = (number << 8U) | static_cast<unsigned char>(bytes[index]);
    }
    return number;
}

// Up to the end of the file, at most so many bytes.
std::string ReadAt(const posix::Descriptor& file, std::uint64_t offset, std::uint64_t size) {
    std::string bytes(size, '\0');
    std::size_t read = 0;
    while (read < bytes.size()) {
        const ssize_t length = posix::AcrossSignals([&] {
            return ::pread(file.Get(), bytes.data() + read, bytes.size() - read, static_cast<off_t>(offset + read));
        });
        if (length <= 0) {
            break;
        }
        read += static_cast<std::size_t>(length);
    }
    bytes.resize(read);
    return bytes;
}

}  // namespace

std::string ShownMachine(const ElfMachine& machine) {
    static const std::map<unsigned, const char*> names{{EM_386, "x86"},
                                                       {EM_ARM, "ARM"},
                                                       {EM_X86_64, "x86-64"},
                                                       {EM_AARCH64, "AArch64"},
                                                       {EM_PPC64, "64-bit POWER"},
                                                       {EM_RISCV, "RISC-V"},
                                                       {EM_S390, "S/390"},
                                                       {EM_LOONGARCH, "LoongArch"},
                                                       {EM_MIPS, "MIPS"}};
    const auto name = names.find(machine.number);
    std::string text = name == names.end() ? "machine " + std::to_string(machine.number) : name->second;
    text += machine.is64Bit ? "" : ", 32-bit";
    text += machine.isLittleEndian ? "" : ", big-endian";
    return text;
}

std::optional<ElfMachine> ReadElfMachine(const posix::Descriptor& file) {
    constexpr std::size_t kMachineAt = EI_NIDENT + 2;
    const std::string header = ReadAt(file, 0, kMachineAt + 2);
    if (header.size() != kMachineAt + 2 || !header.starts_with(ELFMAG)) {
        return std::nullopt;
    }
    ElfMachine machine;
    machine.is64Bit = header[EI_CLASS] == ELFCLASS64;
    machine.isLittleEndian = header[EI_DATA] == ELFDATA2LSB;
    std::string number = header.substr(kMachineAt);
    if (!machine.isLittleEndian) {
        std::swap(number[0], number[1]);
    }
    machine.number = static_cast<unsigned>(LittleEndian(number));
    return machine;
}

ElfObject::ElfObject(posix::Descriptor objectFile) : file(std::move(objectFile)), fileSize(FileSize()) {
    ::elf_version(EV_CURRENT);
    const std::optional<ElfMachine> kind = ReadElfMachine(file);
    const std::optional<std::string> bytes = FileBytes(0, sizeof(Elf64_Ehdr));
    if (!bytes) {
        Reject(Fault::NoObject, "file too short");
    }
    if (!kind) {
        Reject(Fault::NoObject, "invalid ELF header");
    }
    if (!kind->is64Bit || !kind->isLittleEndian) {
        Reject(Fault::Content, "not a 64-bit little-endian object");
    }
    machine = kind->number;
    const Elf64_Ehdr header = Records<Elf64_Ehdr>(*bytes, ELF_T_EHDR).front();
    if (header.e_type == ET_EXEC) {
        Reject(Fault::Content, "cannot dynamically load executable");
    }
    if (header.e_type != ET_DYN) {
        Reject(Fault::Content, "only ET_DYN and ET_EXEC can be loaded");
    }
    ReadSegments(header);
    ReadDynamicSection();
    ReadNames();
    ReadSymbols();
    ReadRelocations();
}

std::uint64_t ElfObject::FileSize() const {
    struct stat status {};
    return ::fstat(file.Get(), &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

std::optional<std::string> ElfObject::FileBytes(std::uint64_t offset, std::uint64_t size) const {
    if (offset > fileSize || size > fileSize - offset || size > kLongestTable) {
        return std::nullopt;
    }
    std::string bytes = ReadAt(file, offset, size);
    return bytes.size() == size ? std::optional(std::move(bytes)) : std::nullopt;
}

// As many as there are whole ones.
template <typename Record>
std::vector<Record> ElfObject::Records(const std::string& bytes, int type) const {
    std::vector<Record> records(bytes.size() / sizeof(Record));
    Elf_Data source{};
    source.d_buf = const_cast<char*>(bytes.data());
    source.d_size = records.size() * sizeof(Record);
    source.d_type = static_cast<Elf_Type>(type);
    source.d_version = EV_CURRENT;
    Elf_Data target = source;
    target.d_buf = records.data();
    if (!records.empty() && ::elf64_xlatetom(&target, &source, ELFDATA2LSB) == nullptr) {
        records.clear();
    }
    return records;
}

// Nothing for a table that the object does not have.
template <typename Record>
std::vector<Record> ElfObject::Table(std::int64_t addressTag, std::uint64_t size, int type, const char* what) const {
    const std::uint64_t address = Dynamic(addressTag);
    if (address == 0 || size == 0) {
        return {};
    }
    const std::optional<std::string> bytes = Bytes(address, size);
    if (!bytes) {
        throw BadObject(Fault::Content, std::string(what) + " out of the file");
    }
    return Records<Record>(*bytes, type);
}

void ElfObject::ReadSegments(const Elf64_Ehdr& header) {
    if (header.e_phentsize != sizeof(Elf64_Phdr)) {
        Reject(Fault::Content, "ELF file's phentsize not the expected size");
    }
    const std::optional<std::string> bytes =
        FileBytes(header.e_phoff, std::uint64_t{header.e_phnum} * sizeof(Elf64_Phdr));
    if (!bytes) {
        Reject(Fault::NoObject, "cannot read file data");
    }
    for (const Elf64_Phdr& segment : Records<Elf64_Phdr>(*bytes, ELF_T_PHDR)) {
        if (segment.p_type == PT_LOAD) {
            if (segment.p_offset > fileSize || segment.p_filesz > fileSize - segment.p_offset) {
                Reject(Fault::NoObject, "file too short");
            }
            if (segment.p_filesz > segment.p_memsz || segment.p_memsz > UINT64_MAX - segment.p_vaddr) {
                Reject(Fault::Content, "a segment that cannot be loaded");
            }
            segments.push_back(segment);
        } else if (segment.p_type == PT_DYNAMIC) {
            dynamicSegment = segment;
        }
    }
    if (segments.empty()) {
        Reject(Fault::Content, "object file has no loadable segments");
    }
    if (!dynamicSegment) {
        Reject(Fault::Content, "object file has no dynamic section");
    }
}

void ElfObject::ReadDynamicSection() {
    const std::optional<std::string> bytes = Bytes(dynamicSegment->p_vaddr, dynamicSegment->p_filesz);
    if (!bytes) {
        Reject(Fault::Content, "dynamic section out of the file");
    }
    dynamic = Records<Elf64_Dyn>(*bytes, ELF_T_DYN);
    const auto end =
        std::find_if(dynamic.begin(), dynamic.end(), [](const Elf64_Dyn& entry) { return entry.d_tag == DT_NULL; });
    dynamic.erase(end, dynamic.end());
}

void ElfObject::ReadNames() {
    if (const std::uint64_t address = Dynamic(DT_STRTAB); address != 0) {
        const std::optional<std::string> bytes = Bytes(address, Dynamic(DT_STRSZ));
        if (!bytes) {
            Reject(Fault::Content, "string table out of the file");
        }
        names = *bytes;
    }
    // Of the two kinds of search paths the older one counts where the newer one is missing.
    const std::int64_t searchTag = Dynamic(DT_RUNPATH) != 0 ? DT_RUNPATH : DT_RPATH;
    for (const Elf64_Dyn& entry : dynamic) {
        if (entry.d_tag == DT_NEEDED) {
            needed.push_back(NameAt(entry.d_un.d_val));
        } else if (entry.d_tag == searchTag) {
            const std::string paths = NameAt(entry.d_un.d_val);
            for (std::size_t at = 0; at <= paths.size();) {
                const std::size_t end = std::min(paths.find(':', at), paths.size());
                if (end > at) {
                    searchPaths.push_back(paths.substr(at, end - at));
                }
                at = end + 1;
            }
        }
    }
}

void ElfObject::ReadSymbols() {
    symbols = Table<Elf64_Sym>(DT_SYMTAB, std::min(SymbolCount(), kLongestTable) * sizeof(Elf64_Sym), ELF_T_SYM,
                               "symbol table");
}

// Only the tables that find a symbol by its name tell how many there are.
std::uint64_t ElfObject::SymbolCount() const {
    if (const std::uint64_t address = Dynamic(DT_HASH); address != 0) {
        return Number(address + 4, 4).value_or(0);
    }
    if (const std::uint64_t address = Dynamic(DT_GNU_HASH); address != 0) {
        return CountOfHashTable(address);
    }
    return 0;
}

// The chain of the last symbols goes on up to the one that is marked as its end.
std::uint64_t ElfObject::CountOfHashTable(std::uint64_t address) const {
    constexpr std::uint64_t kEntry = 4;
    const std::uint64_t buckets = Number(address, kEntry).value_or(0);
    const std::uint64_t first = Number(address + kEntry, kEntry).value_or(0);
    const std::uint64_t filter = Number(address + 2 * kEntry, kEntry).value_or(0);
    const std::uint64_t bucketsAt = address + 4 * kEntry + filter * kWord;
    const std::optional<std::string> bytes = Bytes(bucketsAt, buckets * kEntry);
    if (!bytes) {
        Reject(Fault::Content, "hash table out of the file");
    }
    std::uint64_t last = 0;
    for (const Elf64_Word bucket : Records<Elf64_Word>(*bytes, ELF_T_WORD)) {
        last = std::max<std::uint64_t>(last, bucket);
    }
    if (last < first) {
        return first;
    }
    const std::uint64_t chains = bucketsAt + buckets * kEntry;
    for (; last < kLongestTable / sizeof(Elf64_Sym); ++last) {
        if ((Number(chains + (last - first) * kEntry, kEntry).value_or(0) & 1U) != 0) {
            return last + 1;
        }
    }
    Reject(Fault::Content, "hash table out of the file");
}

void ElfObject::ReadRelocations() {
    ReadRelocationTable(DT_RELA, DT_RELASZ, true);
    ReadRelocationTable(DT_REL, DT_RELSZ, false);
    ReadRelocationTable(DT_JMPREL, DT_PLTRELSZ, Dynamic(DT_PLTREL) == DT_RELA);
    std::stable_sort(relocations.begin(), relocations.end(),
                     [](const Relocation& a, const Relocation& b) { return a.address < b.address; });
    ReadPackedRelocations();
}

void ElfObject::ReadRelocationTable(std::int64_t tag, std::int64_t sizeTag, bool hasAddends) {
    constexpr char kWhat[] = "relocation table";
    if (hasAddends) {
        for (const Elf64_Rela& entry : Table<Elf64_Rela>(tag, Dynamic(sizeTag), ELF_T_RELA, kWhat)) {
            AddRelocation(entry.r_offset, entry.r_info, static_cast<std::uint64_t>(entry.r_addend));
        }
    } else {
        for (const Elf64_Rel& entry : Table<Elf64_Rel>(tag, Dynamic(sizeTag), ELF_T_REL, kWhat)) {
            AddRelocation(entry.r_offset, entry.r_info, std::nullopt);
        }
    }
}

// Every machine has numbers of its own for the kinds of relocations, and the same two for pointers in data: an address
// in the object, without a symbol, and the address of a symbol.
void ElfObject::AddRelocation(std::uint64_t address, std::uint64_t info, std::optional<std::uint64_t> addend) {
    const std::uint64_t lower = info & UINT32_MAX;
    const std::uint64_t upper = info >> 32U;
    const bool isSwapped = machine == EM_MIPS;
    if ((isSwapped ? upper : lower) != 0) {  // 0 is no relocation on any machine
        relocations.push_back({address, static_cast<std::uint32_t>(isSwapped ? lower : upper), addend});
    }
}

// Words of two kinds. An even one is the address of a word that is relocated; an odd one tells, bit by bit, which of
// those behind are.
void ElfObject::ReadPackedRelocations() {
    std::uint64_t next = 0;
    for (const Elf64_Xword word :
         Table<Elf64_Xword>(DT_RELR, Dynamic(DT_RELRSZ), ELF_T_XWORD, "packed relocation table")) {
        if ((word & 1U) == 0) {
            packed.emplace_back(word, 1);
            next = word + kWord;
        } else {
            packed.emplace_back(next, word >> 1U);
            next += kPackedWords * kWord;
        }
    }
    std::sort(packed.begin(), packed.end());
}

bool ElfObject::IsPacked(std::uint64_t address) const {
    const auto behind = std::upper_bound(packed.begin(), packed.end(), std::pair(address, UINT64_MAX));
    if (behind == packed.begin()) {
        return false;
    }
    const auto& [first, bitmap] = *std::prev(behind);
    const std::uint64_t distance = address - first;
    return distance % kWord == 0 && distance / kWord < kPackedWords && ((bitmap >> (distance / kWord)) & 1U) != 0;
}

const Elf64_Phdr* ElfObject::SegmentOf(std::uint64_t address, std::uint64_t size) const {
    const auto found = std::find_if(segments.begin(), segments.end(), [&](const Elf64_Phdr& segment) {
        return address >= segment.p_vaddr && size <= segment.p_memsz &&
               address - segment.p_vaddr <= segment.p_memsz - size;
    });
    return found == segments.end() ? nullptr : &*found;
}

// Behind what the file has of a segment there are zeros.
std::optional<std::string> ElfObject::Bytes(std::uint64_t address, std::uint64_t size) const {
    const Elf64_Phdr* const segment = SegmentOf(address, size);
    if (segment == nullptr || size > kLongestTable) {
        return std::nullopt;
    }
    const std::uint64_t within = address - segment->p_vaddr;
    const std::uint64_t inFile = within < segment->p_filesz ? std::min(size, segment->p_filesz - within) : 0;
    std::optional<std::string> bytes = FileBytes(segment->p_offset + within, inFile);
    if (inFile == 0) {
        bytes.emplace();
    }
    if (bytes) {
        bytes->resize(size, '\0');
    }
    return bytes;
}

// 0 for an entry that there is not.
std::uint64_t ElfObject::Dynamic(std::int64_t tag) const {
    const auto found =
        std::find_if(dynamic.begin(), dynamic.end(), [&](const Elf64_Dyn& entry) { return entry.d_tag == tag; });
    return found == dynamic.end() ? 0 : found->d_un.d_val;
}

std::string ElfObject::NameAt(std::uint64_t offset) const {
    return offset < names.size() ? std::string(names.c_str() + offset) : "";
}

std::optional<std::uint64_t> ElfObject::Symbol(const std::string& name) const {
    for (const Elf64_Sym& symbol : symbols) {
        const unsigned binding = ELF64_ST_BIND(symbol.st_info);
        const unsigned visibility = ELF64_ST_VISIBILITY(symbol.st_other);
        const bool isInObject = symbol.st_shndx != SHN_UNDEF && symbol.st_shndx != SHN_ABS && symbol.st_value != 0;
        const bool isExported =
            isInObject && binding != STB_LOCAL && visibility != STV_HIDDEN && visibility != STV_INTERNAL;
        if (isExported && symbol.st_name < names.size() && name == names.c_str() + symbol.st_name) {
            return symbol.st_value;
        }
    }
    return std::nullopt;
}

std::optional<std::uint64_t> ElfObject::Number(std::uint64_t address, std::size_t bytes) const {
    const std::optional<std::string> found = Bytes(address, bytes);
    return found ? std::optional(LittleEndian(*found)) : std::nullopt;
}

std::optional<std::string> ElfObject::Text(std::uint64_t address, std::size_t longest) const {
    constexpr std::uint64_t kPiece = 256;
    std::string text;
    while (text.size() < longest) {
        const Elf64_Phdr* const segment = SegmentOf(address, 1);
        const std::uint64_t left = segment == nullptr ? 0 : segment->p_memsz - (address - segment->p_vaddr);
        const std::optional<std::string> piece = left == 0 ? std::nullopt : Bytes(address, std::min(left, kPiece));
        if (!piece) {
            return std::nullopt;
        }
        const std::size_t end = piece->find('\0');
        text.append(*piece, 0, end);
        if (end != std::string::npos) {
            return text.size() < longest ? std::optional(std::move(text)) : std::nullopt;
        }
        address += piece->size();
    }
    return std::nullopt;
}

ElfObject::Pointer ElfObject::PointerAt(std::uint64_t address) const {
    using Kind = Pointer::Kind;
    const std::optional<std::uint64_t> there = Number(address, kWord);
    if (!there) {
        return {Kind::Wild, 0};
    }
    const auto behind = std::upper_bound(relocations.begin(), relocations.end(), address,
                                         [](std::uint64_t at, const Relocation& entry) { return at < entry.address; });
    std::uint64_t target = *there;
    if (behind != relocations.begin() && std::prev(behind)->address == address) {
        const Relocation& relocation = *std::prev(behind);
        target = relocation.addend.value_or(*there);
        if (relocation.symbol >= symbols.size() && relocation.symbol != 0) {
            return {Kind::Wild, 0};
        }
        if (relocation.symbol != 0) {
            const Elf64_Sym& symbol = symbols[relocation.symbol];
            if (symbol.st_shndx == SHN_UNDEF) {
                const bool isWeak = ELF64_ST_BIND(symbol.st_info) == STB_WEAK;
                return {isWeak ? Kind::Null : Kind::Elsewhere, 0};
            }
            target += symbol.st_value;
        }
    } else if (*there == 0) {
        return {};
    } else if (!IsPacked(address)) {
        return {Kind::Wild, 0};
    }
    return SegmentOf(target, 1) == nullptr ? Pointer{Kind::Wild, 0} : Pointer{Kind::Inside, target};
}

}  // namespace lofter::analyze
