#include "plugins/ObjectFile.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include <elf.h>

namespace lofter {

namespace {

std::uint64_t SizeOf(std::istream& file) {
    file.seekg(0, std::ios::end);
    const auto end = static_cast<std::streamoff>(file.tellg());
    return end < 0 ? 0 : static_cast<std::uint64_t>(end);
}

bool ReadAt(std::istream& file, std::uint64_t offset, void* target, std::size_t size) {
    file.clear();
    file.seekg(static_cast<std::streamoff>(offset));
    file.read(static_cast<char*>(target), static_cast<std::streamsize>(size));
    return static_cast<std::size_t>(file.gcount()) == size;
}

// The segments that the loader is going to map.
std::vector<Elf64_Phdr> ProgramHeaders(std::istream& file) {
    Elf64_Ehdr header;
    if (!ReadAt(file, 0, &header, sizeof header) || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
        header.e_ident[EI_CLASS] != ELFCLASS64 || header.e_phentsize != sizeof(Elf64_Phdr)) {
        return {};
    }
    std::vector<Elf64_Phdr> segments(header.e_phnum);
    if (!ReadAt(file, header.e_phoff, segments.data(), segments.size() * sizeof(Elf64_Phdr))) {
        return {};
    }
    return segments;
}

}  // namespace

bool EndsBeforeItsContents(std::istream& file) {
    const std::uint64_t size = SizeOf(file);
    const std::vector<Elf64_Phdr> segments = ProgramHeaders(file);
    return std::any_of(segments.begin(), segments.end(), [size](const Elf64_Phdr& segment) {
        return segment.p_type == PT_LOAD && (segment.p_filesz > size || segment.p_offset > size - segment.p_filesz);
    });
}

}  // namespace lofter
