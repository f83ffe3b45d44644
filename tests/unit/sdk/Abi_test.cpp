// The binary interface of native plugins: plugins that exist keep working only if none of these numbers ever changes.
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <elf.h>
#include <gtest/gtest.h>
#include <link.h>

#include "layout.h"

namespace {

using Numbers = std::vector<unsigned long>;

const Numbers kMetadata = {0, 8, 16, 24, 32, 40, 48, 56};
const Numbers kOperations = {0, 8, 16};

void ExpectLayout(const Layout& layout) {
    EXPECT_EQ(Numbers(std::begin(layout.metadata), std::end(layout.metadata)), kMetadata);
    EXPECT_EQ(Numbers(std::begin(layout.operations), std::end(layout.operations)), kOperations);
}

struct Unload {
    void operator()(void* object) const { dlclose(object); }
};

class Object {
  public:
    explicit Object(const std::string& path) : handle(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {}

    const char* Address(const char* symbol) const { return static_cast<const char*>(dlsym(handle.get(), symbol)); }

    ElfW(Sym) Entry(const char* symbol) const {
        Dl_info information{};
        void* entry = nullptr;
        EXPECT_NE(dladdr1(Address(symbol), &information, &entry, RTLD_DL_SYMENT), 0);
        return *static_cast<ElfW(Sym)*>(entry);
    }

    template <typename Value>
    Value At(const char* symbol, std::size_t offset) const {
        Value value;
        std::memcpy(&value, Address(symbol) + offset, sizeof value);
        return value;
    }

  private:
    std::unique_ptr<void, Unload> handle;
};

TEST(PluginInterfaceTest, HasTheSameLayoutInC11) {
    ExpectLayout(LayoutInC11());
}

TEST(PluginInterfaceTest, HasTheSameLayoutInCxx17) {
    ExpectLayout(LayoutInCxx17());
}

TEST(PluginInterfaceTest, ExportsTwoDataSymbolsOfTheirSize) {
    const std::string fixtures = NATIVE_FIXTURES;
    const std::string examples = NATIVE_EXAMPLES;
    for (const std::string& path : {fixtures + "/release3.so", fixtures + "/release3_cxx.so", examples + "/hello.so",
                                    examples + "/inventory.so"}) {
        const Object object(path);
        for (const auto& [name, size] : {std::pair{"metadata", 56U}, std::pair{"operations", 16U}}) {
            ASSERT_NE(object.Address(name), nullptr) << path;
            const ElfW(Sym) symbol = object.Entry(name);
            EXPECT_EQ(symbol.st_size, size) << path;
            EXPECT_EQ(ELF64_ST_TYPE(symbol.st_info), STT_OBJECT) << path;
            EXPECT_EQ(ELF64_ST_BIND(symbol.st_info), STB_GLOBAL) << path;
            EXPECT_EQ(ELF64_ST_VISIBILITY(symbol.st_other), STV_DEFAULT) << path;
        }
    }
}

TEST(PluginInterfaceTest, HasEveryMemberWhereItBelongs) {
    using List = const char* const*;
    for (const std::string name : {"/release3.so", "/release3_cxx.so"}) {
        const Object object(NATIVE_FIXTURES + name);
        EXPECT_EQ(object.At<std::uint32_t>("metadata", 0), 3U);
        EXPECT_STREQ(object.At<List>("metadata", 8)[0], "network");
        EXPECT_EQ(object.At<List>("metadata", 8)[1], nullptr);
        EXPECT_STREQ(object.At<List>("metadata", 16)[0], "clock");
        EXPECT_STREQ(object.At<const char*>("metadata", 24), "1.2-rc");
        EXPECT_EQ(object.At<unsigned char>("metadata", 32), 1);
        EXPECT_STREQ(object.At<List>("metadata", 40)[0], "b");
        EXPECT_STREQ(object.At<List>("metadata", 48)[0], "y");
        EXPECT_NE(object.At<void*>("operations", 0), nullptr);
        EXPECT_NE(object.At<void*>("operations", 8), object.At<void*>("operations", 0));
        EXPECT_NE(object.At<void*>("operations", 8), nullptr);
    }
}

TEST(PluginInterfaceTest, HasANullEntryForAnOperationThatAPluginLacks) {
    EXPECT_EQ(Object(std::string(NATIVE_EXAMPLES) + "/hello.so").At<void*>("operations", 8), nullptr);
}

}  // namespace
