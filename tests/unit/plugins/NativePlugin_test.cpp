#include "plugins/NativePlugin.h"

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/Exception.h"
#include "base/Paths.h"
#include "plugins/description/NativeDescription.h"
#include "posix/Descriptor.h"
#include "support/FailureOf.h"
#include "support/OpenDescriptors.h"
#include "support/Plugins.h"
#include "support/SpawnControl.h"
#include "support/TemporaryDirectory.h"
#include "support/WaitUntil.h"

namespace lofter {
namespace {

namespace fs = std::filesystem;
using test::FailureOf;
using test::OpenDescriptors;
using test::SpawnControl;
using Texts = std::vector<std::string>;

std::string Fixture(const std::string& name) {
    return std::string(NATIVE_FIXTURES) + "/" + name + ".so";
}

std::string Example(const std::string& name) {
    return std::string(NATIVE_EXAMPLES) + "/" + name + ".so";
}

// They live until the process ends.
NativePlugin& Load(const std::string& path, const std::string& name = "p") {
    static std::vector<std::unique_ptr<NativePlugin>> loaded;
    return *loaded.emplace_back(test::MakePlugin<NativePlugin>(DescribeNativePlugin(name, path)));
}

Texts Requires(const NativePlugin& plugin) {
    return test::Required(plugin.Description());
}
Texts Provides(const NativePlugin& plugin) {
    return test::Provided(plugin.Description());
}

bool IsLoaded(const std::string& path) {
    void* handle = dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    if (handle != nullptr) {
        dlclose(handle);
    }
    return handle != nullptr;
}

// What the loader itself says of an object that it rejects.
std::string LoaderReason(const std::string& path) {
    dlerror();
    EXPECT_EQ(dlopen(path.c_str(), RTLD_LAZY | RTLD_GLOBAL), nullptr);
    return dlerror();
}

bool HasChildren() {
    return waitpid(-1, nullptr, WNOHANG) != -1;
}

template <typename Expected>
std::string LoadFailure(const std::string& path) {
    const std::string text = FailureOf<Expected>([&] { Load(path); });
    EXPECT_FALSE(IsLoaded(path));
    return text;
}

std::string Read(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

class NativePluginTest : public testing::Test {
  protected:
    test::TemporaryDirectory folder;
};

// ---- Reading the object

TEST_F(NativePluginTest, NamesTheBarriersOfItsMetadataInTheirOrder) {
    for (const std::string name : {"barriers", "barriers_cxx"}) {
        const NativePlugin& plugin = Load(Fixture(name), name);
        EXPECT_EQ(plugin.Name(), name);
        EXPECT_EQ(Requires(plugin), (Texts{"network", "disk"}));
        EXPECT_EQ(Provides(plugin), (Texts{"clock", "names"}));
        EXPECT_EQ(plugin.GetVersion(), 1);
        EXPECT_EQ(plugin.ScheduleClass(), 1U);
        EXPECT_EQ(plugin.DotAttributes(), "");
        EXPECT_FALSE(IsLoaded(Fixture(name)));
    }
}

TEST_F(NativePluginTest, KeepsTheOptionalFieldsEmptyWhenItsVersionHasNone) {
    const NativePlugin& plugin = Load(Fixture("barriers"));
    EXPECT_FALSE(plugin.RunOnce());
    EXPECT_EQ(plugin.PluginVersion(), "");
    EXPECT_TRUE(plugin.RequiredFlags().empty());
    EXPECT_TRUE(plugin.DisablingFlags().empty());
}

TEST_F(NativePluginTest, ReadsReleaseRunOnceAndFlagsFromVersionThreeOn) {
    for (const std::string name : {"release3", "release4", "release3_cxx"}) {
        const NativePlugin& plugin = Load(Fixture(name));
        EXPECT_EQ(plugin.GetVersion(), name == "release4" ? 4 : 3);
        EXPECT_TRUE(plugin.RunOnce());
        EXPECT_EQ(plugin.PluginVersion(), "1.2-rc");
        EXPECT_EQ(plugin.RequiredFlags(), (std::set<std::string>{"a", "b"}));
        EXPECT_EQ(plugin.DisablingFlags(), (std::set<std::string>{"x", "y"}));
        EXPECT_TRUE(plugin.HasApplyHostProfile());
        EXPECT_FALSE(IsLoaded(Fixture(name)));
    }
}

TEST_F(NativePluginTest, IgnoresRunOnceAndFlagsOfAVersionTwoObject) {
    const NativePlugin& plugin = Load(Fixture("garbage_release"));
    EXPECT_EQ(plugin.GetVersion(), 2);
    EXPECT_FALSE(plugin.RunOnce());
    EXPECT_EQ(plugin.PluginVersion(), "");
    EXPECT_TRUE(plugin.RequiredFlags().empty());
    EXPECT_TRUE(plugin.DisablingFlags().empty());
    EXPECT_EQ(Provides(plugin), Texts{"clock"});
}

TEST_F(NativePluginTest, TakesNullListsForEmptyOnes) {
    const NativePlugin& plugin = Load(Fixture("null_lists"));
    EXPECT_EQ(plugin.GetVersion(), 3);
    EXPECT_TRUE(plugin.Description().links.empty());
    EXPECT_TRUE(plugin.RequiredFlags().empty());
    EXPECT_TRUE(plugin.DisablingFlags().empty());
    EXPECT_EQ(plugin.PluginVersion(), "");
    EXPECT_FALSE(plugin.RunOnce());
}

TEST_F(NativePluginTest, RejectsInterfaceVersionsOtherThanOneToFour) {
    for (const std::string name : {"version0", "version5", "version_huge"}) {
        EXPECT_EQ(LoadFailure<InvalidPluginException>(Fixture(name)),
                  "plugin `" + Fixture(name) + "' is invalid: Unsupported API version");
        EXPECT_TRUE(DescribeNativePlugin("p", Fixture(name)).links.empty());
    }
}

TEST_F(NativePluginTest, ReportsAMissingSymbolAsAPlainException) {
    EXPECT_EQ(LoadFailure<Exception>(Fixture("no_operations")),
              "Failed loading symbol: operations Located at: " + Fixture("no_operations") +
                  " Reason: " + Fixture("no_operations") + ": undefined symbol: operations");
    EXPECT_EQ(LoadFailure<Exception>(Fixture("no_metadata")),
              "Failed loading symbol: metadata Located at: " + Fixture("no_metadata") +
                  " Reason: " + Fixture("no_metadata") + ": undefined symbol: metadata");
}

TEST_F(NativePluginTest, LooksForTheOperationsFirst) {
    EXPECT_EQ(LoadFailure<Exception>(Fixture("neither")),
              "Failed loading symbol: operations Located at: " + Fixture("neither") + " Reason: " + Fixture("neither") +
                  ": undefined symbol: operations");
}

TEST_F(NativePluginTest, ReportsASymbolWithoutAnAddress) {
    EXPECT_EQ(
        LoadFailure<Exception>(Fixture("null_operations")),
        "Failed loading symbol: operations Located at: " + Fixture("null_operations") + " Reason: its address is null");
}

TEST_F(NativePluginTest, IsNotMisledByAnErrorThatAConstructorLeftInTheLoader) {
    EXPECT_EQ(Provides(Load(Fixture("stale_error"))), Texts{"clock"});
}

TEST_F(NativePluginTest, LoadsAnObjectThatLacksAFunctionSinceBindingIsLazy) {
    EXPECT_EQ(Provides(Load(Fixture("unresolved_function"))), Texts{"clock"});
}

TEST_F(NativePluginTest, LoadsAnObjectForAllToSee) {
    Load(Fixture("staying"));
    EXPECT_NE(dlsym(RTLD_DEFAULT, "only_the_staying_object_has_this"), nullptr);
}

TEST_F(NativePluginTest, GivesTheLoadersReasonForMissingData) {
    const std::string path = Fixture("unresolved_data");
    EXPECT_EQ(LoadFailure<InvalidPluginException>(path),
              "plugin `" + path + "' is invalid: " + path + ": undefined symbol: nobody_has_this_data");
}

TEST_F(NativePluginTest, GivesTheLoadersReasonForWhatIsNoSharedObject) {
    folder.Write("text.so", "#!/bin/sh\n# not a shared object, however long it is: " + std::string(100, '.') + "\n");
    folder.Write("empty.so", "");
    fs::create_directory(folder / "directory.so");
    fs::create_symlink("nowhere", folder / "dangling.so");
    const std::vector<std::pair<std::string, std::string>> reasons = {
        {"text", "invalid ELF header"},
        {"empty", "file too short"},
        {"directory", "cannot read file data: Is a directory"},
        {"dangling", "cannot open shared object file: No such file or directory"},
        {"absent", "cannot open shared object file: No such file or directory"},
    };
    for (const auto& [name, reason] : reasons) {
        const std::string path = folder / (name + ".so");
        EXPECT_EQ(LoaderReason(path), path + ": " + reason);
        EXPECT_EQ(LoadFailure<InvalidPluginException>(path), "plugin `" + path + "' is invalid: " + LoaderReason(path));
    }
}

TEST_F(NativePluginTest, GivesTheLoadersReasonForAnObjectOfAnotherArchitecture) {
    std::string bytes = Read(Fixture("barriers"));
    std::uint16_t machine = EM_S390;
    bytes.replace(offsetof(Elf64_Ehdr, e_machine), sizeof machine, reinterpret_cast<const char*>(&machine),
                  sizeof machine);
    const std::string path = folder / "foreign.so";
    folder.Write("foreign.so", bytes);
    EXPECT_EQ(LoadFailure<InvalidPluginException>(path), "plugin `" + path + "' is invalid: " + LoaderReason(path));
}

TEST_F(NativePluginTest, LeavesNoDescriptorBehindWhenLoadingFails) {
    folder.Write("text.so", std::string(200, '.'));
    const std::set<int> before = OpenDescriptors();
    LoadFailure<InvalidPluginException>(folder / "text.so");
    LoadFailure<InvalidPluginException>(Fixture("version5"));
    LoadFailure<Exception>(Fixture("no_metadata"));
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(NativePluginTest, LoadsTheWorkedExamples) {
    const NativePlugin& hello = Load(Example("hello"), "hello");
    EXPECT_EQ(hello.GetVersion(), 1);
    EXPECT_EQ(Provides(hello), Texts{"hello"});

    const NativePlugin& inventory = Load(Example("inventory"), "inventory");
    EXPECT_EQ(inventory.GetVersion(), 1);
    EXPECT_EQ(Requires(inventory), Texts{"hello"});
    EXPECT_EQ(Provides(inventory), Texts{"inventory"});

    const NativePlugin& identity = Load(Example("identity"), "identity");
    EXPECT_EQ(identity.GetVersion(), 3);
    EXPECT_TRUE(identity.RunOnce());
    EXPECT_EQ(identity.PluginVersion(), "1.0");
    EXPECT_EQ(identity.DisablingFlags(), std::set<std::string>{"rescue"});
    EXPECT_FALSE(identity.HasApplyHostProfile());

    const NativePlugin& banner = Load(Example("banner"), "banner");
    EXPECT_EQ(banner.GetVersion(), 2);
    EXPECT_TRUE(banner.HasApplyHostProfile());
}

// ---- The host-profile operation

TEST_F(NativePluginTest, HasNoHostProfileOperationInVersionTwoWhenTheEntryIsNull) {
    NativePlugin& plugin = Load(Fixture("no_profile2"));
    EXPECT_FALSE(plugin.HasApplyHostProfile());
    EXPECT_EQ(FailureOf<NotImplementedException>([&] { plugin.ApplyHostProfile(); }),
              "method `NativePlugin::ApplyHostProfile' is not implemented");
}

TEST_F(NativePluginTest, HasNoHostProfileOperationInVersionOneThoughTheEntryIsThere) {
    NativePlugin& plugin = Load(Fixture("profile1"));
    EXPECT_FALSE(plugin.HasApplyHostProfile());
    EXPECT_EQ(FailureOf<NotImplementedException>([&] { plugin.ApplyHostProfile(); }),
              "method `NativePlugin::ApplyHostProfile' is not implemented");
}

TEST_F(NativePluginTest, HasTheHostProfileOperationInVersionTwoWhenTheEntryIsThere) {
    EXPECT_TRUE(Load(Fixture("profile2")).HasApplyHostProfile());
}

// ---- Running an operation

class NativeOperationTest : public NativePluginTest {
  protected:
    NativeOperationTest() {
        control.program = NATIVE_EXECUTOR;
        fs::copy_file(Fixture("acts"), object);
    }

    // The plugin whose operation does what the name says.
    NativePlugin& Actor(const std::string& name) { return Load(object, name); }

    std::string StartFailure(const std::string& name) {
        return FailureOf<MethodFailedException>([&] { Actor(name).StartPlugin(); });
    }

    // A named pipe that never blocks the test: it has both ends open.
    posix::Descriptor MakePipe(const std::string& name) {
        EXPECT_EQ(mkfifo((folder / name).c_str(), 0600), 0);
        return posix::Descriptor(open((folder / name).c_str(), O_RDWR | O_CLOEXEC));
    }

    // Waits until that many operations have said that they are there.
    static void ExpectArrivals(const posix::Descriptor& arrived, int count) {
        for (int i = 0; i < count; i++) {
            pollfd readable{arrived.Get(), POLLIN, 0};
            ASSERT_EQ(poll(&readable, 1, 30'000), 1);
            char dot = 0;
            ASSERT_EQ(read(arrived.Get(), &dot, 1), 1);
        }
    }

    // Lets all operations go that wait or will wait.
    posix::Descriptor LetGo() const { return posix::Descriptor(open((folder / "go").c_str(), O_RDWR | O_CLOEXEC)); }

    const std::string object = folder / "acts.so";
    SpawnControl control;
};

TEST_F(NativeOperationTest, IsHandedToTheNativeExecutor) {
    Actor("return 0").StartPlugin();
    EXPECT_EQ(FailureOf<MethodFailedException>([&] { Actor("p").ApplyHostProfile(); }),
              "p->apply_host_profile() failed: exited with code 44");

    const std::vector<SpawnControl::Request> requests = control.Requests();
    ASSERT_EQ(requests.size(), 2U);
    EXPECT_EQ(requests[0].program, "/usr/lib/tessel/lofter/nativeExecutor");
    EXPECT_EQ(requests[0].arguments, (Texts{"/usr/lib/tessel/lofter/nativeExecutor", object, "return 0", "start"}));
    EXPECT_EQ(requests[0].environment, Texts{});
    EXPECT_FALSE(requests[0].attributes);
    EXPECT_EQ(requests[1].arguments,
              (Texts{"/usr/lib/tessel/lofter/nativeExecutor", object, "p", "apply_host_profile"}));
    EXPECT_EQ(control.LiveFileActions(), 0);
    EXPECT_FALSE(HasChildren());
}

TEST_F(NativeOperationTest, SharesTheStandardStreamsAndNothingElse) {
    Actor("report").StartPlugin();
    std::string expected = "argument /usr/lib/tessel/lofter/nativeExecutor\nargument " + object +
                           "\nargument report\nargument start\nenvironment empty\n";
    for (int stream = 0; stream < 3; stream++) {
        struct stat status {};
        ASSERT_EQ(fstat(stream, &status), 0);
        expected += "stream " + std::to_string(stream) + ":" + std::to_string(status.st_ino) + "\n";
    }
    EXPECT_EQ(folder.Read("report").substr(0, expected.size()), expected);
}

TEST_F(NativeOperationTest, ReportsTheExitCode) {
    EXPECT_EQ(StartFailure("return 3"), "return 3->start() failed: exited with code 3");
    EXPECT_EQ(StartFailure("return 255"), "return 255->start() failed: exited with code 255");
    EXPECT_EQ(StartFailure("exit 9"), "exit 9->start() failed: exited with code 9");
    EXPECT_FALSE(HasChildren());
}

TEST_F(NativeOperationTest, ReportsResultsThatAreNoExitCodeAsOne) {
    EXPECT_EQ(StartFailure("return 256"), "return 256->start() failed: exited with code 1");
    EXPECT_EQ(StartFailure("return -1"), "return -1->start() failed: exited with code 1");
}

TEST_F(NativeOperationTest, ReportsTheSignalThatEndedIt) {
    EXPECT_EQ(StartFailure("kill itself"), "kill itself->start() failed: exited with signal: 9");
    EXPECT_EQ(StartFailure("abort"), "abort->start() failed: exited with signal: 6");
    EXPECT_FALSE(HasChildren());
}

TEST_F(NativeOperationTest, ReportsAProcessThatDidNotEndAsUnknownFailure) {
    EXPECT_EQ(StartFailure("stop under a tracer"), "stop under a tracer->start() failed: exited: <unknown failure>");
    const pid_t process = control.Requests().at(0).process;
    kill(process, SIGKILL);
    EXPECT_EQ(waitpid(process, nullptr, 0), process);
}

TEST_F(NativeOperationTest, ReportsAnExitWhileItsObjectIsLoaded) {
    EXPECT_EQ(StartFailure("exit 7 while loading"), "exit 7 while loading->start() failed: exited with code 7");
    EXPECT_EQ(StartFailure("exit 0 while loading"), "exit 0 while loading->start() failed: exited with code 125");
}

TEST_F(NativeOperationTest, ReportsAnObjectThatWasDeletedInTheMeantime) {
    NativePlugin& plugin = Actor("return 0");
    fs::remove(object);
    EXPECT_EQ(FailureOf<MethodFailedException>([&] { plugin.StartPlugin(); }),
              "return 0->start() failed: exited with code 125");
}

TEST_F(NativeOperationTest, ReportsAFunctionThatIsMissingOnlyWhenItRuns) {
    NativePlugin& plugin = Load(Fixture("unresolved_function"));
    EXPECT_EQ(FailureOf<MethodFailedException>([&] { plugin.StartPlugin(); }),
              "p->start() failed: exited with code 125");
}

TEST_F(NativeOperationTest, MayCloseItsStreamsWithoutTouchingOurs) {
    Actor("close the streams").StartPlugin();
    for (int stream = 0; stream < 3; stream++) {
        EXPECT_NE(fcntl(stream, F_GETFD), -1);
    }
}

TEST_F(NativeOperationTest, IsOverThoughAChildOfItGoesOn) {
    const posix::Descriptor arrived = MakePipe("arrived");
    ASSERT_EQ(mkfifo((folder / "go").c_str(), 0600), 0);
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);  // the orphan comes to this process, which sees it end
    Actor("leave a child").StartPlugin();
    ExpectArrivals(arrived, 1);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), 0);
    const posix::Descriptor go = LetGo();
    int status = -1;
    EXPECT_GT(waitpid(-1, &status, 0), 0);
    EXPECT_EQ(status, 0);
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 0), 0);
}

TEST_F(NativeOperationTest, ReportsFileActionsThatCannotBeMade) {
    control.initStatus = ENOMEM;
    EXPECT_EQ(StartFailure("p"), "p->start() failed: failed to init file actions: Cannot allocate memory");
    EXPECT_EQ(control.LiveFileActions(), 0);
    EXPECT_TRUE(control.Requests().empty());
}

TEST_F(NativeOperationTest, ReportsAStreamThatCannotBeSharedWithoutASeparator) {
    control.addDup2Status = EBADF;
    for (int stream = 0; stream < 3; stream++) {
        control.failingStream = stream;
        EXPECT_EQ(StartFailure("p"), "p->start() failed: failed to add dup2 file actionsBad file descriptor");
        EXPECT_EQ(control.LiveFileActions(), 0);
    }
    EXPECT_TRUE(control.Requests().empty());
}

TEST_F(NativeOperationTest, ReportsAProcessThatCannotBeStarted) {
    control.spawnStatus = EAGAIN;
    EXPECT_EQ(StartFailure("p"), "p->start() failed: failed to spawn: Resource temporarily unavailable");
    EXPECT_EQ(control.LiveFileActions(), 0);
}

TEST_F(NativeOperationTest, ReportsAMissingOrUnusableExecutor) {
    control.program = folder / "absent";
    EXPECT_EQ(StartFailure("p"), "p->start() failed: failed to spawn: No such file or directory");
    folder.Write("plain", "#!/bin/sh\n");
    control.program = folder / "plain";
    EXPECT_EQ(StartFailure("p"), "p->start() failed: failed to spawn: Permission denied");
    EXPECT_FALSE(HasChildren());
}

TEST_F(NativeOperationTest, ReportsAChildThatCannotBeWaitedFor) {
    struct sigaction previous {};
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;  // the kernel then reaps children by itself
    ASSERT_EQ(sigaction(SIGCHLD, &ignore, &previous), 0);
    EXPECT_EQ(StartFailure("return 0"), "return 0->start() failed: failed to read exit status");
    ASSERT_EQ(sigaction(SIGCHLD, &previous, nullptr), 0);
}

TEST_F(NativeOperationTest, LeavesNoDescriptorBehind) {
    const std::set<int> before = OpenDescriptors();
    Actor("return 0").StartPlugin();
    StartFailure("abort");
    control.program = folder / "absent";
    StartFailure("p");
    control.program = NATIVE_EXECUTOR;
    control.addDup2Status = EBADF;
    StartFailure("p");
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(NativeOperationTest, RunsBesideOthers) {
    constexpr int kOperations = 8;
    const posix::Descriptor arrived = MakePipe("arrived");
    ASSERT_EQ(mkfifo((folder / "go").c_str(), 0600), 0);
    NativePlugin& plugin = Actor("meet");
    std::vector<std::string> results(kOperations);
    std::vector<std::thread> threads;
    for (std::string& result : results) {
        threads.emplace_back(
            [&plugin, &result] { result = FailureOf<MethodFailedException>([&plugin] { plugin.StartPlugin(); }); });
    }
    ExpectArrivals(arrived, kOperations);
    const posix::Descriptor go = LetGo();
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(results, std::vector<std::string>(kOperations, test::kNoFailure));
    EXPECT_EQ(control.LiveFileActions(), 0);
    EXPECT_FALSE(HasChildren());
}

// Whether a signal was sent to the thread that has not reached it yet.
bool IsPending(pid_t thread, int number) {
    std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("SigPnd:")) {
            return (std::stoull(line.substr(7), nullptr, 16) >> (number - 1) & 1) != 0;
        }
    }
    return false;
}

// A signal that is handled while an operation runs neither ends the wait nor fails the operation.
TEST_F(NativeOperationTest, IsWaitedForAcrossSignals) {
    const posix::Descriptor arrived = MakePipe("arrived");
    ASSERT_EQ(mkfifo((folder / "go").c_str(), 0600), 0);
    struct sigaction previous {};
    struct sigaction interrupt {};
    interrupt.sa_handler = [](int) {
    };  // and no SA_RESTART
    ASSERT_EQ(sigaction(SIGUSR1, &interrupt, &previous), 0);

    NativePlugin& plugin = Actor("meet");
    std::promise<pid_t> waiter;
    std::string result;
    std::thread waiting([&] {
        waiter.set_value(gettid());
        result = FailureOf<MethodFailedException>([&] { plugin.StartPlugin(); });
    });
    const pid_t thread = waiter.get_future().get();
    ExpectArrivals(arrived, 1);
    for (int i = 0; i < 100; i++) {
        pthread_kill(waiting.native_handle(), SIGUSR1);
        EXPECT_TRUE(test::WaitUntil([&] { return !IsPending(thread, SIGUSR1); }));
    }
    const posix::Descriptor go = LetGo();
    waiting.join();
    EXPECT_EQ(result, test::kNoFailure);
    ASSERT_EQ(sigaction(SIGUSR1, &previous, nullptr), 0);
}

}  // namespace
}  // namespace lofter
