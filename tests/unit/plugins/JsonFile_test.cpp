#include "plugins/JsonFile.h"

#include <gtest/gtest.h>

#include "support/TemporaryDirectory.h"

namespace lofter {
namespace {

TEST(JsonFileContent, IsWhatTheFileHolds) {
    const test::TemporaryDirectory folder;
    const std::string content = std::string(100'000, 'x') + std::string("\r\n\0end", 6);
    EXPECT_EQ(ReadFileContent(folder.Write("file", content)), content);
}

TEST(JsonFileContent, IsNoneWhenTheFileCannotBeOpened) {
    const test::TemporaryDirectory folder;
    EXPECT_EQ(ReadFileContent(folder / "missing"), std::nullopt);
}

TEST(JsonFileContent, IsEmptyOfWhatIsNoFile) {
    const test::TemporaryDirectory folder;
    EXPECT_EQ(ReadFileContent(folder.Path()), "");
    EXPECT_EQ(ReadFileContent("/dev/zero"), "");
}

TEST(JsonFileContent, IsEmptyOfAFileThatCannotBeRead) {
    EXPECT_EQ(ReadFileContent("/proc/self/mem"), "");  // opens, but nothing is mapped at its begin
}

}  // namespace
}  // namespace lofter
