#include "posix/Directory.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>

#include <gtest/gtest.h>

#include "posix/File.h"
#include "support/ChildOutcome.h"
#include "support/TemporaryDirectory.h"

namespace lofter {
namespace {

TEST(FileNames, AreThoseOfEveryKindOfEntryButTheDots) {
    const test::TemporaryDirectory folder;
    folder.Write("file", "");
    folder.Write(".hidden", "");
    folder.Write("folder/inside", "");
    std::filesystem::create_symlink("nowhere", folder / "link");
    const std::vector<std::string> names = posix::FileNames(folder.Path());
    EXPECT_EQ(std::multiset<std::string>(names.begin(), names.end()),
              (std::multiset<std::string>{".hidden", "file", "folder", "link"}));
}

TEST(FileNames, AreThoseOfADirectoryThatIsOpenAlready) {
    const test::TemporaryDirectory folder;
    folder.Write("file", "");
    EXPECT_EQ(posix::FileNames(posix::OpenFile(folder.Path(), O_RDONLY), folder.Path()),
              std::vector<std::string>{"file"});
    try {
        posix::FileNames(posix::OpenFile(folder / "file", O_RDONLY), "what it is called");
        ADD_FAILURE();
    } catch (const std::filesystem::filesystem_error& e) {
        EXPECT_EQ(e.code().value(), ENOTDIR);
        EXPECT_EQ(e.path1(), "what it is called");
    }
}

// Such a directory has no entry at all, not even itself.
TEST(FileNames, AreNoneInADirectoryThatWasRemoved) {
    EXPECT_EQ(test::InForkedChild([] {
                  {
                      const test::TemporaryDirectory folder;
                      std::filesystem::current_path(folder.Path());
                  }
                  return std::to_string(posix::FileNames(".").size());
              }),
              "0");
}

TEST(FileNames, OfWhatIsNoDirectoryAreRefusedWithTheReason) {
    const test::TemporaryDirectory folder;
    for (const auto& [path, error] :
         {std::pair(folder.Write("file", ""), ENOTDIR), std::pair(folder / "missing", ENOENT)}) {
        try {
            posix::FileNames(path);
            ADD_FAILURE() << path;
        } catch (const std::filesystem::filesystem_error& e) {
            EXPECT_EQ(e.what(), "filesystem error: directory iterator cannot open directory: " +
                                    std::string(std::strerror(error)) + " [" + path + "]");
        }
    }
}

}  // namespace
}  // namespace lofter
