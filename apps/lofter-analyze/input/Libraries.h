// The shared libraries of a host, and which of those that an object needs are missing.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "input/ElfObject.h"
#include "input/HostRoot.h"

namespace lofter::analyze {

class Libraries {
  public:
    // The root outlives it.
    explicit Libraries(const HostRoot& hostRoot);

    // What an object asks of the loader. The directory is the one that the object's file is in, and in which root that
    // is to be looked up.
    struct Needs {
        ElfMachine machine;
        std::vector<std::string> libraries;
        std::vector<std::string> searchPaths;
        std::string directory;
        const HostRoot* directoryRoot;
    };

    // The names of the libraries that are nowhere, each once; behind that of one that another library needs, in
    // parentheses, which.
    std::vector<std::string> FindMissing(const Needs& needs);

  private:
    struct Found {
        std::string path;
        const HostRoot* root;
    };
    std::optional<Found> Find(const std::string& library, const Needs& needs) const;
    bool IsFor(const ElfMachine& machine, const Found& library) const;
    const std::vector<std::string>& MissingFor(const ElfMachine& machine, const Found& library);
    void AddStandardDirectories();
    void AddConfigured(const std::string& file, int level);

    const HostRoot& root;
    std::vector<std::string> directories;
    std::set<std::string> configurations;  // the files that were read for them
    int depth = 0;                         // of libraries that need each other
    std::map<std::pair<ElfMachine, std::string>, std::vector<std::string>> missing;  // by the path of a library
};

}  // namespace lofter::analyze
