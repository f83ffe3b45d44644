#include "plugins/description/DescriptionText.h"

#include <stdexcept>

#include <gtest/gtest.h>

#include "base/Exception.h"
#include "support/FailureOf.h"

namespace lofter {
namespace {

using test::FailureOf;

PluginDescription Release() {
    PluginDescription plugin(PluginKind::Native, "net", "/net.so");
    plugin.version = 3;
    plugin.hasHostProfileOperation = true;
    plugin.runOnce = true;
    plugin.release = "1.0 \xc3\xa4";
    plugin.Provide("link");
    plugin.Provide("");
    plugin.Require("disk");
    plugin.requiredFlags = {"", "a", "b"};
    plugin.disablingFlags = {"x"};
    return plugin;
}

TEST(DescriptionText, IsReadAsItWasWritten) {
    const PluginDescription written = Release();
    PluginDescription read(PluginKind::Native, "net", "/net.so");
    FromText(ToText(written), read);
    EXPECT_EQ(read.version, 3);
    EXPECT_TRUE(read.hasHostProfileOperation);
    EXPECT_TRUE(read.runOnce);
    EXPECT_EQ(read.release, written.release);
    EXPECT_EQ(read.links, written.links);
    EXPECT_EQ(read.requiredFlags, written.requiredFlags);
    EXPECT_EQ(read.disablingFlags, written.disablingFlags);
    EXPECT_EQ(read.failure, nullptr);
}

TEST(DescriptionText, CarriesTheTextOfAFailureAndWhatWasReadBefore) {
    PluginDescription written = Release();
    written.failure = std::make_exception_ptr(std::runtime_error("broken"));
    PluginDescription read(PluginKind::Native, "net", "/net.so");
    FromText(ToText(written), read);
    EXPECT_EQ(FailureOf<Exception>([&] { std::rethrow_exception(read.failure); }), "broken");
    EXPECT_EQ(read.links, written.links);
}

TEST(DescriptionText, IsRefusedWhenItIsCutOrIsNone) {
    const std::string whole = ToText(Release());
    for (const std::string& text : {std::string(), whole.substr(0, whole.size() - 1), whole + "?x" + '\0', whole + '\0',
                                    std::string("\0"
                                                "3x\0"
                                                "0\0"
                                                "0\0"
                                                "\0",
                                                9)}) {
        PluginDescription read(PluginKind::Native, "net", "/net.so");
        EXPECT_NE(FailureOf<std::invalid_argument>([&] { FromText(text, read); }), test::kNoFailure);
    }
}

}  // namespace
}  // namespace lofter
