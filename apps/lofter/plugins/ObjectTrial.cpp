#include "plugins/ObjectTrial.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <new>
#include <optional>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/Exception.h"
#include "base/Logging.h"
#include "base/Paths.h"
#include "plugins/description/NativeDescription.h"
#include "posix/AcrossSignals.h"
#include "posix/ChildProcess.h"
#include "posix/Descriptor.h"

namespace lofter {

namespace {

using Clock = std::chrono::steady_clock;

// How long a process may take to end when it is asked to, and when it is killed.
constexpr std::chrono::seconds kEndLimit{1};

// The channel's number in the process that tries objects. The standard streams are the ones below.
constexpr int kChannel = STDERR_FILENO + 1;

// How far the trial of one object has come. In memory that both processes have: an object can close descriptors, but
// not this.
enum class Stage { kGiven, kLoading, kSurvived, kDescriptorsDisturbed };

class SharedStage {
  public:
    SharedStage() : memory(Map()), stage(memory == MAP_FAILED ? nullptr : new (memory) std::atomic(Stage::kGiven)) {}
    ~SharedStage() {
        if (stage != nullptr) {
            munmap(memory, sizeof *stage);
        }
    }
    SharedStage(const SharedStage&) = delete;
    SharedStage& operator=(const SharedStage&) = delete;

    explicit operator bool() const { return stage != nullptr; }
    Stage Get() const { return *stage; }
    void Set(Stage reached) const { *stage = reached; }

  private:
    static void* Map() {
        return mmap(nullptr, sizeof(std::atomic<Stage>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    }

    void* const memory;
    std::atomic<Stage>* const stage;
};

std::string EndOf(int status) {
    if (WIFSIGNALED(status)) {
        const int number = WTERMSIG(status);
        return "ended its loader with signal " + std::to_string(number) + " (" + strsignal(number) + ")";
    }
    return "exited its loader with status " + std::to_string(WEXITSTATUS(status));
}

// ---- The other process's side

// What the standard streams and the channel are, to be compared.
class OpenFiles {
  public:
    OpenFiles() {
        for (int descriptor = 0; descriptor <= kChannel; ++descriptor) {
            File& file = files[static_cast<std::size_t>(descriptor)];
            struct stat status {};
            if (fstat(descriptor, &status) == 0) {
                file = {status.st_dev, status.st_ino, fcntl(descriptor, F_GETFL)};
            }
        }
    }
    bool operator==(const OpenFiles&) const = default;

  private:
    struct File {
        dev_t device = 0;
        ino_t number = 0;
        int flags = -1;
        bool operator==(const File&) const = default;
    };
    std::array<File, kChannel + 1> files;
};

// A refusal of the loader's, or want of memory, is survived: the real load says so.
void TryToLoad(const char* path) {
    try {
        DescribeNativePlugin({}, path);
    } catch (const std::exception&) {
        // No memory for the description itself.
    }
}

void ServeTrials(const SharedStage& stage) {
    const OpenFiles before;
    std::array<char, PATH_MAX> path;
    for (;;) {
        const ssize_t length = posix::AcrossSignals([&] { return recv(kChannel, path.data(), path.size() - 1, 0); });
        if (length <= 0) {
            return;
        }
        path[static_cast<std::size_t>(length)] = '\0';
        stage.Set(Stage::kLoading);
        TryToLoad(path.data());
        const bool isUndisturbed = OpenFiles() == before;
        stage.Set(isUndisturbed ? Stage::kSurvived : Stage::kDescriptorsDisturbed);
        if (!isUndisturbed || posix::AcrossSignals([] { return send(kChannel, "", 1, MSG_NOSIGNAL); }) != 1) {
            return;
        }
    }
}

// What the object prints is printed by the real load. Without the device, something else takes the streams' places.
void RedirectStreams() {
    posix::Descriptor nowhere(open(paths::kNull, O_RDWR | O_CLOEXEC));
    if (!nowhere) {
        nowhere.Reset(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        dup2(nowhere.Get(), stream);
    }
}

// Goes on in C++ after the fork, which is safe where the parent has one thread only.
[[noreturn]] void RunTrialProcess(pid_t parent, int channel, const SharedStage& stage) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent || dup2(channel, kChannel) != kChannel) {
        _exit(EXIT_FAILURE);
    }
    posix::CloseDescriptorsFrom(kChannel + 1);
    RedirectStreams();
    ServeTrials(stage);
    posix::Descriptor(kChannel).Reset();
    _exit(EXIT_SUCCESS);
}

}  // namespace

// ---- This process's side

class ObjectTrial::Process {
  public:
    Process() {
        std::array<int, 2> ends{};
        if (!stage || socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
            return;
        }
        channel.Reset(ends[0]);
        const posix::Descriptor othersEnd(ends[1]);
        const pid_t parent = getpid();
        child = fork();
        if (child == 0) {
            RunTrialProcess(parent, othersEnd.Get(), stage);
        }
        if (child > 0) {
            setpgid(child, child);  // as the child does: it must have happened before either goes on
            childEnd = posix::WatchProcess(child);
        }
    }
    ~Process() {
        channel.Reset();  // which asks it to end
        if (child <= 0) {
            return;
        }
        if (childEnd && !EndsWithin(kEndLimit)) {
            Kill();
        }
        // One that cannot even be killed, for a file that its disk does not give, is left to itself.
        if (!childEnd || EndsWithin(kEndLimit)) {
            Reap();
        }
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // Whether it could be made, and otherwise why not: in errno.
    explicit operator bool() const { return static_cast<bool>(childEnd); }
    bool IsRunning() const { return child > 0; }

    // Why the object must not be loaded; an empty text when it may be. Nothing when the process had ended by itself
    // before it got to the object.
    std::optional<std::string> Load(const std::string& path, std::chrono::seconds limit) {
        stage.Set(Stage::kGiven);
        const auto give = [&] {
            return send(channel.Get(), path.c_str(), path.size(), MSG_NOSIGNAL);
        };
        if (posix::AcrossSignals(give) < 0) {
            return std::nullopt;
        }
        switch (Await(limit)) {
            case Event::kAnswer:
                return "";
            case Event::kEnd:
                return ReasonOfEnd();
            case Event::kNothing:
                break;
        }
        Kill();
        return "did not load within " + std::to_string(limit.count()) + " s";
    }

  private:
    enum class Event { kNothing, kAnswer, kEnd };

    // The end of the channel says nothing: an object may close it, and a process that it left behind may hold it open.
    Event Await(std::chrono::seconds limit) {
        const Clock::time_point deadline = Clock::now() + limit;
        std::array<pollfd, 2> watched{{{channel.Get(), POLLIN, 0}, {childEnd.Get(), POLLIN, 0}}};
        for (;;) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
            if (left.count() <= 0) {
                return Event::kNothing;
            }
            if (poll(watched.data(), watched.size(), static_cast<int>(left.count())) <= 0) {
                continue;
            }
            if (watched[0].revents != 0 && !ReceiveAnswer()) {
                watched[0].fd = -1;
            }
            if (watched[0].revents != 0 && stage.Get() == Stage::kSurvived) {
                return Event::kAnswer;
            }
            if (watched[1].revents != 0) {
                return Event::kEnd;
            }
        }
    }

    bool ReceiveAnswer() const {
        char answer = 0;
        return posix::AcrossSignals([&] { return recv(channel.Get(), &answer, sizeof answer, MSG_DONTWAIT); }) > 0;
    }

    std::optional<std::string> ReasonOfEnd() {
        const int status = Reap();
        switch (stage.Get()) {
            case Stage::kGiven:
                return std::nullopt;
            case Stage::kSurvived:
                return "";
            case Stage::kDescriptorsDisturbed:
                return "closed or replaced its loader's descriptors";
            case Stage::kLoading:
                break;
        }
        return EndOf(status);
    }

    bool EndsWithin(std::chrono::milliseconds limit) const {
        pollfd watched{childEnd.Get(), POLLIN, 0};
        return posix::AcrossSignals([&] { return poll(&watched, 1, static_cast<int>(limit.count())); }) > 0;
    }

    // Its group too, which holds what objects have left behind, but may have been left by the process itself.
    void Kill() const {
        kill(-child, SIGKILL);
        kill(child, SIGKILL);
    }

    // Returns the wait status. The group is killed while nobody else can have its number.
    int Reap() {
        Kill();
        int status = 0;
        posix::WaitForChild(std::exchange(child, 0), status);
        return status;
    }

    const SharedStage stage;
    posix::Descriptor channel;
    pid_t child = 0;
    posix::Descriptor childEnd;  // readable once the child has ended
};

ObjectTrial::ObjectTrial(std::chrono::seconds loadLimit) : limit(loadLimit) {}

ObjectTrial::~ObjectTrial() = default;

void ObjectTrial::Try(const std::string& path) {
    if (path.size() >= PATH_MAX) {
        return;  // no such file can be opened
    }
    constexpr int kProcesses = 2;  // one may have ended by itself after the last object
    for (int number = 0; isPossible && number < kProcesses; ++number) {
        if (process == nullptr && !Start()) {
            GiveUp(errno);
            return;
        }
        const std::optional<std::string> reason = process->Load(path, limit);
        if (!reason || !reason->empty() || !process->IsRunning()) {
            process.reset();
        }
        if (reason && !reason->empty()) {
            throw InvalidPluginException(path, *reason);
        }
        if (reason) {
            return;
        }
    }
    GiveUp(ESRCH);
}

bool ObjectTrial::Start() {
    auto made = std::make_unique<Process>();
    if (!*made) {
        return false;
    }
    process = std::move(made);
    return true;
}

void ObjectTrial::GiveUp(int reason) {
    if (std::exchange(isPossible, false)) {
        Log_Level(kWarning, "unable to try native plugins before they are loaded: %s\n", std::strerror(reason));
    }
}

}  // namespace lofter
