// The loader's half of the promise that it accepts exactly what the schema of plugin files accepts.

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/Exception.h"
#include "plugins/JSONPlugin.h"
#include "plugins/description/JsonDescription.h"
#include "support/Plugins.h"

namespace lofter {
namespace {

std::vector<std::filesystem::path> Files(const std::string& kind) {
    const std::filesystem::directory_iterator all(std::filesystem::path(LOFTER_CORPUS) / "plugin-json" / kind);
    std::vector<std::filesystem::path> files;
    for (const auto& entry : all) {
        files.push_back(entry.path());
    }
    return files;
}

TEST(PluginCorpus, GoodFilesAreLoaded) {
    const auto files = Files("good");
    EXPECT_GT(files.size(), 10U);
    for (const std::filesystem::path& file : files) {
        EXPECT_EQ(DescribeJsonPlugin("corpus", file).failure, nullptr) << file;
    }
}

TEST(PluginCorpus, BadFilesAreRejected) {
    const auto files = Files("bad");
    EXPECT_GT(files.size(), 10U);
    for (const std::filesystem::path& file : files) {
        EXPECT_THROW(test::MakePlugin<JSONPlugin>(DescribeJsonPlugin("corpus", file)), InvalidPluginException) << file;
    }
}

}  // namespace
}  // namespace lofter
