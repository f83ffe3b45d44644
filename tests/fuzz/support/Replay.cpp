// Stands in for the fuzzing engine: gives a fuzzer every file below the given folders, once, in the order of their
// names. A folder without files is a failure.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

std::vector<std::filesystem::path> FilesBelow(const std::filesystem::path& folder) {
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
        if (entry.is_regular_file()) {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

void Replay(const std::filesystem::path& path) {
    std::printf("%s\n", path.c_str());
    std::fflush(stdout);
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes(std::istreambuf_iterator<char>(file), {});
    const std::vector<std::uint8_t> input(bytes.begin(), bytes.end());  // no larger than it must be
    LLVMFuzzerTestOneInput(input.data(), input.size());
}

}  // namespace

int main(int argc, char** argv) {
    if (LLVMFuzzerInitialize != nullptr) {
        LLVMFuzzerInitialize(&argc, &argv);
    }
    std::size_t replayed = 0;
    for (int index = 1; index < argc; ++index) {
        const std::vector<std::filesystem::path> files = FilesBelow(argv[index]);
        if (files.empty()) {
            std::fprintf(stderr, "%s: no files\n", argv[index]);
            return EXIT_FAILURE;
        }
        std::for_each(files.begin(), files.end(), Replay);
        replayed += files.size();
    }
    LLVMFuzzerTestOneInput(nullptr, 0);
    std::printf("%zu files\n", replayed);
    return replayed > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
