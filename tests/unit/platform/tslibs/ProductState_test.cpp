#include "tslibs/productState.h"

#include <array>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <stdio.h>

namespace {

// What the shell makes of the same file.
std::string ShellsValue(const std::string& field) {
    const std::string command = ". /etc/os-release; printf %s \"$" + field + "\"";
    const std::unique_ptr<FILE, decltype(&pclose)> output(popen(command.c_str(), "r"), &pclose);
    std::array<char, 256> text{};
    const std::size_t length = fread(text.data(), 1, text.size(), output.get());
    return {text.data(), length};
}

TEST(ProductState, IsWhatTheSystemsReleaseFileSays) {
    EXPECT_EQ(ProductState_GetName(), ShellsValue("NAME"));
    EXPECT_EQ(ProductState_GetVersion(), ShellsValue("VERSION_ID"));
    EXPECT_EQ(ProductState_GetBuildNumberString(), ShellsValue("BUILD_ID"));
    EXPECT_STRNE(ProductState_GetName(), "");
}

TEST(ProductState, KeepsItsTexts) {
    EXPECT_EQ(ProductState_GetName(), ProductState_GetName());
}

TEST(ProductState, NamesHowItWasCompiled) {
#ifdef NDEBUG
    EXPECT_STREQ(ProductState_GetCompilationOption(), "release");
#else
    EXPECT_STREQ(ProductState_GetCompilationOption(), "debug");
#endif
}

}  // namespace
