#include "plugins/ObjectReader.h"

#include <csignal>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/Exception.h"
#include "base/Logging.h"
#include "plugins/description/DescriptionText.h"
#include "plugins/description/NativeDescription.h"
#include "support/ChildOutcome.h"
#include "support/FailureOf.h"
#include "support/LogCapture.h"
#include "support/OpenDescriptors.h"
#include "support/TemporaryDirectory.h"
#include "support/WaitUntil.h"

namespace lofter {
namespace {

using Processes = std::vector<pid_t>;

std::string Fixture(const std::string& name) {
    return std::string(NATIVE_FIXTURES) + "/" + name + ".so";
}

// Why the object is rejected; empty for one that survives.
std::string Rejection(ObjectReader& reader, const std::string& path) {
    try {
        reader.Describe("p", path);
        return "";
    } catch (const InvalidPluginException& failure) {
        return failure.what();
    }
}

std::string Invalid(const std::string& path, const std::string& reason) {
    return "plugin `" + path + "' is invalid: " + reason;
}

Processes Children() {
    std::ifstream list("/proc/self/task/" + std::to_string(getpid()) + "/children");
    return {std::istream_iterator<pid_t>(list), std::istream_iterator<pid_t>()};
}

char StateOf(pid_t process) {
    std::ifstream stat("/proc/" + std::to_string(process) + "/stat");
    std::string number;
    std::string name;
    char state = '?';
    stat >> number >> name >> state;
    return state;
}

bool HasChildren() {
    return waitpid(-1, nullptr, WNOHANG) != -1;
}

class ObjectReaderTest : public testing::Test {
  protected:
    // A crash on purpose is no finding of a sanitizer.
    ObjectReaderTest() {
        for (const int number : {SIGSEGV, SIGBUS}) {
            std::signal(number, SIG_DFL);
        }
    }
};

TEST_F(ObjectReaderTest, UsesOneProcessForManyObjectsAndNoneForNoObject) {
    ObjectReader reader;
    EXPECT_EQ(Children(), Processes{});
    reader.Describe("p", Fixture("barriers"));
    const Processes first = Children();
    EXPECT_EQ(first.size(), 1U);
    for (const std::string name : {"release3", "staying", "barriers"}) {
        reader.Describe("p", Fixture(name));
    }
    EXPECT_EQ(Children(), first);
}

TEST_F(ObjectReaderTest, SaysWhatAReadingInThisProcessSays) {
    const test::TemporaryDirectory folder;
    ObjectReader reader;
    const std::string text = folder.Write("text.so", std::string(200, '.'));
    for (const std::string& path :
         {Fixture("barriers"), Fixture("release3"), Fixture("release4"), Fixture("profile1"), Fixture("profile2"),
          Fixture("null_lists"), Fixture("garbage_release"), text, folder / "absent.so", Fixture("version5"),
          Fixture("no_metadata"), Fixture("unresolved_data"), "/" + std::string(1 << 16, 'x')}) {
        const PluginDescription read = reader.Describe("p", path);
        EXPECT_EQ(read.name, "p");
        EXPECT_EQ(read.path, path);
        EXPECT_EQ(ToText(read), ToText(DescribeNativePlugin("p", path))) << path;
    }
    EXPECT_EQ(Children().size(), 1U);
}

TEST_F(ObjectReaderTest, TriesTheNextObjectInAnotherProcess) {
    ObjectReader reader;
    reader.Describe("p", Fixture("barriers"));
    const Processes first = Children();
    EXPECT_EQ(Rejection(reader, Fixture("exit_3_loading")),
              Invalid(Fixture("exit_3_loading"), "exited its loader with status 3"));
    EXPECT_EQ(Children(), Processes{});
    EXPECT_EQ(Rejection(reader, Fixture("throw_loading")),
              Invalid(Fixture("throw_loading"), "ended its loader with signal 6 (Aborted)"));
    reader.Describe("p", Fixture("barriers"));
    EXPECT_EQ(Children().size(), 1U);
    EXPECT_NE(Children(), first);
}

TEST_F(ObjectReaderTest, HasALimit) {
    ObjectReader reader(std::chrono::milliseconds(200));
    for (const std::string name : {"sleep_loading", "close_all_and_sleep_loading"}) {
        EXPECT_EQ(Rejection(reader, Fixture(name)), Invalid(Fixture(name), "did not load within 0.2 s"));
        EXPECT_FALSE(HasChildren());
    }
}

TEST_F(ObjectReaderTest, DoesNotWaitForAPipeForEver) {
    const test::TemporaryDirectory folder;
    const std::string path = folder / "pipe.so";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    ObjectReader reader(std::chrono::milliseconds(200));
    EXPECT_EQ(Rejection(reader, path), Invalid(path, "did not load within 0.2 s"));
}

TEST_F(ObjectReaderTest, DoesNotBlameAnObjectForAProcessThatEndedBefore) {
    ObjectReader reader;
    reader.Describe("p", Fixture("barriers"));
    const Processes first = Children();
    ASSERT_EQ(first.size(), 1U);
    ASSERT_EQ(kill(first.front(), SIGKILL), 0);
    ASSERT_TRUE(test::WaitUntil([&] { return StateOf(first.front()) == 'Z'; }));
    EXPECT_EQ(Rejection(reader, Fixture("barriers")), "");
    EXPECT_EQ(Children().size(), 1U);
    EXPECT_NE(Children(), first);
}

TEST_F(ObjectReaderTest, LeavesNoProcessAndNoDescriptorBehind) {
    const std::set<int> before = test::OpenDescriptors();
    {
        ObjectReader reader;
        Rejection(reader, Fixture("crash_unloading"));
        Rejection(reader, Fixture("close_all_loading"));
        reader.Describe("p", Fixture("barriers"));
    }
    EXPECT_FALSE(HasChildren());
    EXPECT_EQ(test::OpenDescriptors(), before);
}

TEST_F(ObjectReaderTest, IsDoneWithoutWhereThereIsNoProcessForIt) {
    EXPECT_EQ(test::InForkedChild([] {
                  const test::LogCapture log;
                  test::ForbidProcesses();
                  ObjectReader reader;
                  reader.Describe("p", Fixture("barriers"));
                  reader.Describe("p", Fixture("release3"));
                  return log.Lines().size() == 1 ? log.Lines(kWarning).front() : "not one message";
              }),
              "unable to load native plugins in a process of their own: Resource temporarily unavailable");
}

// The loader maps an object that was cut short without looking, and the first access beyond its end is a crash.
TEST_F(ObjectReaderTest, LetsNoObjectPassThatWasCutShortAndCrashes) {
    const test::TemporaryDirectory folder;
    std::ifstream file(Fixture("barriers"), std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    ObjectReader reader;
    int rejected = 0;
    for (std::size_t length = 0; length < bytes.size(); length += 97) {
        const std::string path = folder.Write(std::to_string(length) + ".so", bytes.substr(0, length));
        const std::string reason = Rejection(reader, path);
        if (!reason.empty()) {
            EXPECT_EQ(reason, Invalid(path, "ended its loader with signal 7 (Bus error)"));
            ++rejected;
            continue;
        }
        if (const PluginDescription plugin = reader.Describe("p", path); plugin.failure) {
            const std::string failure = test::FailureOf([&] { std::rethrow_exception(plugin.failure); });
            EXPECT_NE(failure.find(path + ": "), std::string::npos) << failure;
        }
    }
    EXPECT_GT(rejected, 0);
}

}  // namespace
}  // namespace lofter
