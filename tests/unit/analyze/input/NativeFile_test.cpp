#include "input/NativeFile.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

#include <fcntl.h>
#include <gtest/gtest.h>

#include "plugins/ObjectReader.h"
#include "posix/File.h"
#include "support/TemporaryDirectory.h"

namespace lofter::analyze {
namespace {

using lofter::test::TemporaryDirectory;

NativeFile Read(const std::string& path) {
    return ReadNativeFile("plugin", path, posix::OpenRegularFile(path, O_RDONLY));
}

std::string FaultOf(const std::string& path) {
    const NativeFile file = Read(path);
    return file.rule + ": " + file.fault;
}

std::string Fixture(const std::string& name) {
    return NATIVE_FIXTURES "/" + name + ".so";
}

std::string Content(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

// Objects whose loading takes long, crashes the loader, or that only a loader knows to be bad.
bool IsForLoadersOnly(const std::string& name) {
    static const std::set<std::string> names{"unresolved_data", "change_process_loading"};
    return names.contains(name) || name.ends_with("_loading") || name.ends_with("_unloading") ||
           name.starts_with("wild_") || name.find("sleep") != std::string::npos;
}

// The same description, however it came about.
TEST(NativeFile, SaysWhatTheLoadedObjectSays) {
    ObjectReader loader;
    int compared = 0;
    for (const std::string folder : {NATIVE_FIXTURES, NATIVE_EXAMPLES}) {
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            const std::string path = entry.path();
            if (entry.path().extension() != ".so" || IsForLoadersOnly(entry.path().stem())) {
                continue;
            }
            SCOPED_TRACE(path);
            const PluginDescription read = Read(path).description;
            PluginDescription loaded(PluginKind::Native, "plugin", path);
            try {
                loaded = loader.Describe("plugin", path);
            } catch (const std::exception&) {
                loaded.failure = std::current_exception();
            }
            EXPECT_EQ(read.failure == nullptr, loaded.failure == nullptr);
            if (loaded.failure == nullptr) {
                EXPECT_EQ(read.version, loaded.version);
                EXPECT_EQ(read.links, loaded.links);
                EXPECT_EQ(read.runOnce, loaded.runOnce);
                EXPECT_EQ(read.release, loaded.release);
                EXPECT_EQ(read.requiredFlags, loaded.requiredFlags);
                EXPECT_EQ(read.disablingFlags, loaded.disablingFlags);
                EXPECT_EQ(read.hasHostProfileOperation, loaded.hasHostProfileOperation);
            }
            ++compared;
        }
    }
    EXPECT_GT(compared, 20);
}

TEST(NativeFile, SaysWhatIsWrongWithAnObject) {
    EXPECT_EQ(FaultOf(Fixture("barriers")), ": ");
    EXPECT_EQ(FaultOf(Fixture("no_metadata")), "native-interface: the symbol \"metadata\" is missing");
    EXPECT_EQ(FaultOf(Fixture("null_operations")), "native-interface: the symbol \"operations\" is missing");
    EXPECT_EQ(FaultOf(Fixture("no_operations")), "native-interface: the symbol \"operations\" is missing");
    EXPECT_EQ(FaultOf(Fixture("version0")), "native-interface: Unsupported API version");
    EXPECT_EQ(FaultOf(Fixture("version_huge")), "native-interface: Unsupported API version");
    EXPECT_EQ(FaultOf(Fixture("wild_list")), "native-interface: the list of provided barriers leads out of the file");
    EXPECT_EQ(FaultOf(Fixture("wild_text")), "native-interface: the list of required barriers leads out of the file");
    EXPECT_EQ(FaultOf(Fixture("wild_release")), "native-interface: the plugin's version leads out of the file");
}

TEST(NativeFile, ThatIsCutOffAnywhereIsRejectedWithAReason) {
    const TemporaryDirectory folder;
    const std::string whole = Content(Fixture("barriers"));
    constexpr std::size_t kStep = 97;
    for (std::size_t size = 0; size < whole.size(); size += kStep) {
        const std::string path = folder.Write("cut.so", whole.substr(0, size));
        const NativeFile file = Read(path);
        // What lies behind the last segment, such as the sections' table, no loader looks at.
        EXPECT_EQ(file.fault.empty(), file.description.failure == nullptr);
        if (size < whole.size() / 2) {
            EXPECT_EQ(file.rule, "unreadable") << size;
        }
    }
}

TEST(NativeFile, NeedsTheLibrariesThatItsObjectNames) {
    const std::vector<std::string> needed = Read(Fixture("acts")).neededLibraries;
    EXPECT_NE(
        std::find_if(needed.begin(), needed.end(), [](const std::string& name) { return name.starts_with("libc.so"); }),
        needed.end());
}

// One for each way in which pointers of objects are relocated, and one of another machine.
TEST(NativeFile, IsReadWithItsRelocationsWhateverTheirForm) {
    for (const std::string name : {"plugin", "packed-relocations", "other-machine"}) {
        SCOPED_TRACE(name);
        constexpr std::size_t kLength = 2;
        const TemporaryDirectory folder;
        const NativeFile file =
            Read(folder.Write("plugin.so", Content(LOFTER_CORPUS "/elf-object/" + name).substr(kLength)));
        EXPECT_EQ(file.fault, "");
        EXPECT_EQ(file.description.links, (std::vector<BarrierLink>{{BarrierLink::Direction::Provides, "thing"},
                                                                    {BarrierLink::Direction::Provides, "clock"},
                                                                    {BarrierLink::Direction::Requires, "net"}}));
        EXPECT_EQ(file.description.release, "1.0");
        EXPECT_TRUE(file.description.runOnce);
        EXPECT_EQ(file.description.requiredFlags, std::set<std::string>{"a"});
        EXPECT_EQ(file.description.disablingFlags, std::set<std::string>{"b"});
        EXPECT_TRUE(file.description.hasHostProfileOperation);
    }
}

}  // namespace
}  // namespace lofter::analyze
