#include "input/Libraries.h"

#include <algorithm>
#include <sstream>

#include <fnmatch.h>

namespace lofter::analyze {

namespace {

constexpr char kConfiguration[] = "/etc/ld.so.conf";
constexpr std::size_t kLongestConfiguration = std::size_t{1} * 1024 * 1024;
constexpr int kDeepest = 100;  // files that include each other, libraries that need each other

void AddOnce(std::vector<std::string>& names, const std::string& name) {
    if (std::find(names.begin(), names.end(), name) == names.end()) {
        names.push_back(name);
    }
}

std::string DirectoryOf(const std::string& path) {
    return path.substr(0, path.find_last_of('/') + 1);
}

// The path with what stands for the object's own directory replaced; nothing for one without it.
std::optional<std::string> WithOrigin(const std::string& path, const std::string& directory) {
    for (const std::string origin : {"$ORIGIN", "${ORIGIN}"}) {
        if (path.starts_with(origin)) {
            return directory + path.substr(origin.size());
        }
    }
    return std::nullopt;
}

}  // namespace

Libraries::Libraries(const HostRoot& hostRoot) : root(hostRoot) {
    AddStandardDirectories();
    AddConfigured(kConfiguration, 0);
}

void Libraries::AddStandardDirectories() {
    for (const std::string directory : {"/lib", "/usr/lib", "/lib64", "/usr/lib64"}) {
        AddOnce(directories, directory);
        std::vector<std::string> names = root.FileNames(directory).value_or(std::vector<std::string>{});
        std::sort(names.begin(), names.end());
        for (const std::string& name : names) {
            if (name.find("-linux-") != std::string::npos) {  // of one of several machines
                AddOnce(directories, std::string(directory).append("/").append(name));
            }
        }
    }
}

// A directory a line; "include" and a pattern for the files with more of them.
void Libraries::AddConfigured(const std::string& file, int level) {
    if (level > kDeepest || !configurations.insert(file).second) {
        return;
    }
    constexpr char kBlanks[] = " \t\r";
    std::istringstream lines(root.ReadFile(file, kLongestConfiguration).value_or(""));
    for (std::string line; std::getline(lines, line);) {
        line.erase(std::min(line.find('#'), line.size()));
        line.erase(line.find_last_not_of(kBlanks) + 1);
        line.erase(0, line.find_first_not_of(kBlanks));
        std::istringstream words(line);
        std::string word;
        words >> word;
        if (word != "include") {
            if (line.starts_with('/')) {
                AddOnce(directories, line);
            }
            continue;
        }
        for (std::string pattern; words >> pattern;) {
            const std::string path = pattern.starts_with('/') ? pattern : DirectoryOf(file) + pattern;
            std::vector<std::string> names = root.FileNames(DirectoryOf(path)).value_or(std::vector<std::string>{});
            std::sort(names.begin(), names.end());
            for (const std::string& name : names) {
                if (::fnmatch(path.substr(DirectoryOf(path).size()).c_str(), name.c_str(), FNM_PERIOD) == 0) {
                    AddConfigured(DirectoryOf(path) + name, level + 1);
                }
            }
        }
    }
}

bool Libraries::IsFor(const ElfMachine& machine, const Found& library) const {
    const posix::Descriptor file = library.root->OpenFile(library.path);
    return file && ReadElfMachine(file) == machine;
}

std::optional<Libraries::Found> Libraries::Find(const std::string& library, const Needs& needs) const {
    std::vector<Found> candidates;
    if (library.find('/') != std::string::npos) {
        candidates.push_back({library, &root});
    } else {
        for (const std::string& path : needs.searchPaths) {
            const std::optional<std::string> besides = WithOrigin(path, needs.directory);
            candidates.push_back({besides.value_or(path) + "/" + library, besides ? needs.directoryRoot : &root});
        }
        for (const std::string& directory : directories) {
            candidates.push_back({std::string(directory).append("/").append(library), &root});
        }
    }
    const auto found = std::find_if(candidates.begin(), candidates.end(),
                                    [&](const Found& candidate) { return IsFor(needs.machine, candidate); });
    return found == candidates.end() ? std::nullopt : std::optional(*found);
}

std::vector<std::string> Libraries::FindMissing(const Needs& needs) {
    std::vector<std::string> names;
    for (const std::string& library : needs.libraries) {
        const std::optional<Found> found = Find(library, needs);
        if (!found) {
            AddOnce(names, library);
            continue;
        }
        for (const std::string& indirect : MissingFor(needs.machine, *found)) {
            AddOnce(names, indirect.ends_with(')')
                               ? indirect
                               : std::string(indirect).append(" (for ").append(library).append(")"));
        }
    }
    return names;
}

const std::vector<std::string>& Libraries::MissingFor(const ElfMachine& machine, const Found& library) {
    const auto [known, isNew] = missing.try_emplace({machine, library.path});
    if (isNew && depth < kDeepest) {
        ++depth;
        try {
            const ElfObject object(library.root->OpenFile(library.path));
            known->second = FindMissing(
                {machine, object.NeededLibraries(), object.SearchPaths(), DirectoryOf(library.path), library.root});
        } catch (const BadObject&) {
            // Whatever is wrong with a library of the host is not the plugin's fault.
        }
        --depth;
    }
    return known->second;
}

}  // namespace lofter::analyze
