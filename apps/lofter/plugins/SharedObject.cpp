#include "plugins/SharedObject.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

#include <dlfcn.h>
#include <elf.h>

#include "plugins/Exception.h"

namespace lofter {

namespace {

bool ReadAt(std::istream& file, std::uint64_t offset, void* target, std::size_t size) {
    file.seekg(static_cast<std::streamoff>(offset));
    file.read(static_cast<char*>(target), static_cast<std::streamsize>(size));
    return static_cast<std::size_t>(file.gcount()) == size;
}

// The segments that the loader is going to map. Empty for everything that it rejects by itself.
std::vector<Elf64_Phdr> ProgramHeaders(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
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

// Whether the file ends before its contents do. The loader maps such a file without complaint and the first access
// beyond its end kills the process, which here is the host's boot; a full disk during an update is enough to leave one
// behind.
bool IsCutShort(const std::string& path) {
    std::error_code failure;
    if (!std::filesystem::is_regular_file(path, failure)) {
        return false;
    }
    const std::uint64_t size = std::filesystem::file_size(path, failure);
    const std::vector<Elf64_Phdr> segments = ProgramHeaders(path);
    return std::any_of(segments.begin(), segments.end(), [size](const Elf64_Phdr& segment) {
        return segment.p_type == PT_LOAD && (segment.p_filesz > size || segment.p_offset > size - segment.p_filesz);
    });
}

// A pipe or a device, which the loader would wait for. The loader has a reason of its own for everything else.
bool IsSpecialFile(const std::string& path) {
    std::error_code failure;
    const std::filesystem::file_status status = std::filesystem::status(path, failure);
    return std::filesystem::exists(status) && std::filesystem::is_other(status);
}

std::string LoaderReason() {
    const char* reason = dlerror();
    return reason != nullptr ? reason : "";
}

}  // namespace

void SharedObject::Unload::operator()(void* object) const {
    // An object that refuses to go stays, which harms nobody: it was only looked at.
    dlclose(object);
}

SharedObject::SharedObject(const std::string& objectPath) : path(objectPath) {
    if (IsSpecialFile(path)) {
        throw InvalidPluginException(path, path + ": not a regular file");
    }
    if (IsCutShort(path)) {
        throw InvalidPluginException(path, path + ": file too short");  // the loader's own words for shorter ones
    }
    dlerror();
    handle.reset(dlopen(path.c_str(), RTLD_LAZY | RTLD_GLOBAL));
    if (handle == nullptr) {
        throw InvalidPluginException(path, LoaderReason());
    }
}

const void* SharedObject::Symbol(const std::string& symbol) const {
    dlerror();  // the object's constructors may have left an error of their own
    const void* address = dlsym(handle.get(), symbol.c_str());
    std::string reason = LoaderReason();
    if (reason.empty() && address == nullptr) {
        reason = "its address is null";
    }
    if (!reason.empty()) {
        throw Exception("Failed loading symbol: " + symbol + " Located at: " + path + " Reason: " + reason);
    }
    return address;
}

}  // namespace lofter
