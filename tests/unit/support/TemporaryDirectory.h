// An empty directory that goes, with all that is in it, when its owner goes.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include <stdlib.h>

namespace lofter::test {

class TemporaryDirectory {
  public:
    TemporaryDirectory() {
        std::string pattern = std::filesystem::temp_directory_path() / "lofter-test-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("no temporary directory " + pattern);
        }
        directory = pattern;
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(directory, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& Path() const { return directory; }
    std::string operator/(const std::string& name) const { return directory / name; }

    // Makes a file with that content, and the folders above it. Returns its path.
    std::string Write(const std::string& name, const std::string& content) const {
        const std::filesystem::path path = directory / name;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }

    // Makes an executable shell script.
    std::string WriteScript(const std::string& name, const std::string& body) const {
        const std::string path = Write(name, "#!/bin/sh\n" + body);
        std::filesystem::permissions(path, std::filesystem::perms::owner_all);
        return path;
    }

    std::string Read(const std::string& name) const {
        std::ifstream stream(directory / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }

  private:
    std::filesystem::path directory;
};

}  // namespace lofter::test
