#include "base/Exception.h"

#include <stdexcept>
#include <type_traits>

#include <gtest/gtest.h>

namespace lofter {
namespace {

static_assert(std::is_base_of_v<std::exception, Exception>);
static_assert(std::is_base_of_v<Exception, NotImplementedException>);
static_assert(std::is_base_of_v<Exception, MethodFailedException>);
static_assert(std::is_base_of_v<Exception, InvalidPluginException>);

TEST(Exception, KeepsItsMessageUnchanged) {
    EXPECT_STREQ(Exception("100% %s `odd'\n").what(), "100% %s `odd'\n");
    EXPECT_STREQ(Exception("").what(), "");
}

TEST(Exception, KeepsItsMessageWhenCopied) {
    Exception copy("other");
    {
        const Exception original("a message that is longer than any string keeps within itself");
        copy = original;
    }
    EXPECT_STREQ(copy.what(), "a message that is longer than any string keeps within itself");
}

TEST(Exception, NamesTheMethodThatIsNotImplemented) {
    EXPECT_STREQ(NotImplementedException("json_plugin::ApplyHostProfile").what(),
                 "method `json_plugin::ApplyHostProfile' is not implemented");
}

TEST(Exception, NamesPluginMethodAndReasonOfAFailure) {
    EXPECT_STREQ(MethodFailedException("start", "net", "exited with status 1").what(),
                 "net->start() failed: exited with status 1");
}

TEST(Exception, NamesTheFileOfAnInvalidPlugin) {
    EXPECT_STREQ(InvalidPluginException("/plugins/net.so", "no metadata").what(),
                 "plugin `/plugins/net.so' is invalid: no metadata");
}

TEST(Exception, HasATextWhateverItIs) {
    EXPECT_EQ(TextOf(std::make_exception_ptr(Exception("a message"))), "a message");
    EXPECT_EQ(TextOf(std::make_exception_ptr(std::runtime_error("a reason"))), "a reason");
    EXPECT_EQ(TextOf(std::make_exception_ptr(7)), "unknown exception");
    EXPECT_EQ(TextOf(nullptr), "");
}

}  // namespace
}  // namespace lofter
