#include "input/HostRoot.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "input/Errors.h"
#include "support/TemporaryDirectory.h"

namespace lofter::analyze {
namespace {

using lofter::test::TemporaryDirectory;

constexpr std::size_t kLongest = 100;

// The reason why a file is not to be had; 0 when it is.
int Refusal(const HostRoot& root, const std::string& path, std::size_t longest = kLongest) {
    errno = 0;
    return root.ReadFile(path, longest) ? 0 : errno;
}

TEST(HostRoot, IsWhatAbsolutePathsAndLinksBeginAt) {
    const TemporaryDirectory folder;
    folder.Write("root/etc/real", "content");
    std::filesystem::create_symlink("/etc/real", folder / "root/etc/absolute");
    std::filesystem::create_symlink("../etc/../../../etc/real", folder / "root/etc/relative");
    std::filesystem::create_directory_symlink("/etc", folder / "root/linked");
    const HostRoot root(folder / "root");
    for (const std::string path : {"/etc/real", "/etc/absolute", "/etc/relative", "/linked/real", "/../../etc/real"}) {
        EXPECT_EQ(root.ReadFile(path, kLongest), "content") << path;
    }
}

TEST(HostRoot, IsNeverLeft) {
    const TemporaryDirectory folder;
    folder.Write("beside", "secret");
    folder.Write("root/file", "");
    std::filesystem::create_symlink("../beside", folder / "root/up");
    std::filesystem::create_symlink(folder / "beside", folder / "root/absolute");
    std::filesystem::create_symlink("/proc/self/root/etc/passwd", folder / "root/magic");
    const HostRoot root(folder / "root");
    for (const std::string path : {"/up", "/absolute", "/magic", "/../beside", "/nothing"}) {
        EXPECT_EQ(Refusal(root, path), ENOENT) << path;
    }
}

TEST(HostRoot, HasNoFileWhereThereIsAPipeADeviceOrADirectory) {
    const TemporaryDirectory folder;
    std::filesystem::create_directory(folder / "directory");
    ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), S_IRUSR | S_IWUSR), 0);
    std::filesystem::create_symlink("loop", folder / "loop");
    const HostRoot root(folder.Path());
    EXPECT_EQ(Refusal(root, "/directory"), EISDIR);
    EXPECT_EQ(Refusal(root, "/pipe"), ENXIO);
    EXPECT_EQ(Refusal(root, "/loop"), ELOOP);
}

TEST(HostRoot, ReadsNoMoreThanIsWanted) {
    const TemporaryDirectory folder;
    folder.Write("file", "12345");
    const HostRoot root(folder.Path());
    EXPECT_EQ(Refusal(root, "/file", 5), 0);
    EXPECT_EQ(Refusal(root, "/file", 4), EFBIG);
}

TEST(HostRoot, ListsDirectories) {
    const TemporaryDirectory folder;
    folder.Write("a/x", "");
    folder.Write("a/y", "");
    const HostRoot root(folder.Path());
    std::vector<std::string> names = root.FileNames("/a").value();
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"x", "y"}));
    EXPECT_FALSE(root.FileNames("/a/x"));
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_FALSE(root.FileNames("/b"));
    EXPECT_EQ(errno, ENOENT);
}

TEST(HostRoot, ThatCannotBeOpenedIsAnInputThatCannotBeRead) {
    try {
        const HostRoot root("/no/such/root");
        FAIL();
    } catch (const InputError& e) {
        EXPECT_STREQ(e.what(), "/no/such/root: No such file or directory");
    }
}

TEST(HostRoot, IsNotLookedIntoWhenOnlySingleInputsAreNamed) {
    InputOptions options;
    EXPECT_TRUE(OpenRoot(options));
    options.graph = "dump";
    EXPECT_FALSE(OpenRoot(options));
    options.isRootGiven = true;
    EXPECT_TRUE(OpenRoot(options));
    options = {};
    options.pluginDirectory = "plugins";
    EXPECT_FALSE(OpenRoot(options));
}

}  // namespace
}  // namespace lofter::analyze
