// The native executor program: its exit statuses and the line that it says for each failure of its own.
#include <cstdio>
#include <string>

#include <gtest/gtest.h>
#include <sys/wait.h>

namespace {

struct Outcome {
    int status;
    std::string output;  // standard error
    bool operator==(const Outcome&) const = default;
};

void PrintTo(const Outcome& outcome, std::ostream* stream) {
    *stream << outcome.status << ": " << outcome.output;
}

std::string Fixture(const std::string& name) {
    return std::string(NATIVE_FIXTURES) + "/" + name + ".so";
}

Outcome Execute(const std::string& arguments) {
    FILE* output = popen((std::string(NATIVE_EXECUTOR) + " " + arguments + " 2>&1 >/dev/null").c_str(), "r");
    std::string text;
    for (int byte = fgetc(output); byte != EOF; byte = fgetc(output)) {
        text += static_cast<char>(byte);
    }
    return {WEXITSTATUS(pclose(output)), text};
}

Outcome Act(const std::string& name, const std::string& method = "start") {
    return Execute("'" + Fixture("acts") + "' '" + name + "' " + method);
}

TEST(NativeExecutorTest, ExitsWithTheResultOfTheOperation) {
    EXPECT_EQ(Act("return 0"), (Outcome{0, ""}));
    EXPECT_EQ(Act("return 1"), (Outcome{1, ""}));
    EXPECT_EQ(Act("return 255"), (Outcome{255, ""}));
    EXPECT_EQ(Act("p", "apply_host_profile"), (Outcome{44, ""}));
}

TEST(NativeExecutorTest, MakesOneOfEveryOtherResult) {
    EXPECT_EQ(Act("return 256"), (Outcome{1, ""}));
    EXPECT_EQ(Act("return 512"), (Outcome{1, ""}));
    EXPECT_EQ(Act("return -1"), (Outcome{1, ""}));
    EXPECT_EQ(Act("return -256"), (Outcome{1, ""}));
}

TEST(NativeExecutorTest, TakesThreeArguments) {
    const Outcome usage{2, "usage: nativeExecutor <object> <plugin> <method>\n"};
    EXPECT_EQ(Execute(""), usage);
    EXPECT_EQ(Execute("a b"), usage);
    EXPECT_EQ(Execute("a b start d"), usage);
}

TEST(NativeExecutorTest, SaysWhyAnObjectCannotBeLoaded) {
    EXPECT_EQ(Execute("/absent.so p start"),
              (Outcome{125,
                       "nativeExecutor: plugin p: /absent.so: cannot open shared object file: No such file or "
                       "directory\n"}));
    const std::string path = Fixture("unresolved_function");
    EXPECT_EQ(Execute(path + " p start"),
              (Outcome{125, "nativeExecutor: plugin p: " + path + ": undefined symbol: nobody_has_this_function\n"}));
}

TEST(NativeExecutorTest, DoesNotTakeAnExitWhileLoadingForSuccess) {
    EXPECT_EQ(Act("exit 0 while loading"),
              (Outcome{125, "nativeExecutor: " + Fixture("acts") + " ended the process while it was being loaded\n"}));
    EXPECT_EQ(Act("exit 7 while loading"), (Outcome{7, ""}));
}

TEST(NativeExecutorTest, SaysThatAnObjectHasNoOperations) {
    for (const std::string name : {"no_operations", "null_operations"}) {
        EXPECT_EQ(Execute(Fixture(name) + " p start"),
                  (Outcome{126, "nativeExecutor: plugin p: " + Fixture(name) + " has no operations table\n"}));
    }
}

TEST(NativeExecutorTest, SaysThatAnOperationIsMissing) {
    EXPECT_EQ(Execute(Fixture("no_profile2") + " p apply_host_profile"),
              (Outcome{126, "nativeExecutor: plugin p: " + Fixture("no_profile2") +
                                " has no operation apply_host_profile\n"}));
}

TEST(NativeExecutorTest, KnowsTwoMethods) {
    EXPECT_EQ(Act("p", "stop"), (Outcome{127, "nativeExecutor: plugin p: unknown method stop\n"}));
    EXPECT_EQ(Execute("/absent.so p ''"), (Outcome{127, "nativeExecutor: plugin p: unknown method \n"}));
}

}  // namespace
