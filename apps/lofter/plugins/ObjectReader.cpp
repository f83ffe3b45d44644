#include "plugins/ObjectReader.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <new>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
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
#include "plugins/description/DescriptionText.h"
#include "plugins/description/NativeDescription.h"
#include "posix/AcrossSignals.h"
#include "posix/ChildProcess.h"
#include "posix/Descriptor.h"
#include "posix/File.h"

namespace lofter {

namespace {

using Clock = std::chrono::steady_clock;

// How much of an answer is sent at once.
constexpr std::size_t kPiece = std::size_t{32} * 1024;

// How long a process may take to end when it is asked to, and when it is killed.
constexpr std::chrono::seconds kEndLimit{1};

// The channel's number in the process that reads objects. The standard streams are the ones below.
constexpr int kChannel = STDERR_FILENO + 1;

// How far the reading of one object has come. In memory that both processes have: an object can close descriptors, but
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

std::string Seconds(std::chrono::milliseconds length) {
    std::ostringstream text;
    text << std::chrono::duration<double>(length).count();
    return text.str();
}

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
                file = {status.st_dev, status.st_ino};
            }
        }
    }
    bool operator==(const OpenFiles&) const = default;

  private:
    struct File {
        dev_t device = 0;
        ino_t number = 0;
        bool operator==(const File&) const = default;
    };
    std::array<File, kChannel + 1> files;
};

// In pieces that the channel takes. False when the other end has gone.
bool Answer(std::string_view text) {
    const std::uint64_t size = text.size();
    const auto sendPiece = [](const void* piece, std::size_t length) {
        return posix::AcrossSignals([&] { return send(kChannel, piece, length, MSG_NOSIGNAL); }) >= 0;
    };
    if (!sendPiece(&size, sizeof size)) {
        return false;
    }
    for (; !text.empty(); text.remove_prefix(std::min(text.size(), kPiece))) {
        if (!sendPiece(text.data(), std::min(text.size(), kPiece))) {
            return false;
        }
    }
    return true;
}

void ServeReads(const SharedStage& stage) {
    const OpenFiles before;
    const pid_t process = getpid();
    std::array<char, PATH_MAX> path;
    for (;;) {
        const ssize_t length = posix::AcrossSignals([&] { return recv(kChannel, path.data(), path.size() - 1, 0); });
        if (length <= 0) {
            return;
        }
        path[static_cast<std::size_t>(length)] = '\0';
        stage.Set(Stage::kLoading);
        const std::string text = ToText(DescribeNativePlugin({}, path.data()));
        if (getpid() != process) {
            return;  // a copy that the object has made and let go on
        }
        const bool isUndisturbed = OpenFiles() == before;
        stage.Set(isUndisturbed ? Stage::kSurvived : Stage::kDescriptorsDisturbed);
        if (!isUndisturbed || !Answer(text)) {
            return;
        }
    }
}

// Nothing that an operator types is for an object that is loaded. Without the device, something else takes its place.
void TakeInputAway() {
    posix::Descriptor nowhere = posix::OpenFile(paths::kNull, O_RDWR);
    if (!nowhere) {
        nowhere = posix::OpenFile("/", O_RDONLY | O_DIRECTORY);
    }
    dup2(nowhere.Get(), STDIN_FILENO);
}

// Goes on in C++ after the fork, which is safe where the parent has one thread only.
[[noreturn]] void RunReader(pid_t parent, int channel, const SharedStage& stage) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent || dup2(channel, kChannel) != kChannel) {
        _exit(EXIT_FAILURE);
    }
    posix::CloseDescriptorsFrom(kChannel + 1);
    TakeInputAway();
    try {
        ServeReads(stage);
    } catch (const std::exception&) {
        // No memory for what the object says: like an answer that is lost.
        stage.Set(Stage::kGiven);
    }
    posix::CloseDescriptorsFrom(kChannel);
    _exit(EXIT_SUCCESS);
}

}  // namespace

// ---- This process's side

class ObjectReader::Process {
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
            RunReader(parent, othersEnd.Get(), stage);
        }
        if (child > 0) {
            setpgid(child, child);  // as the child does: it must have happened before either goes on
            childEnd = posix::WatchProcess(child);
        }
    }
    ~Process() { End(); }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // Whether it could be made, and otherwise why not: in errno.
    explicit operator bool() const { return static_cast<bool>(childEnd); }
    bool IsRunning() const { return child > 0; }

    // What became of reading one object: what it says, or why nothing is to be had from it. Neither when the process
    // was gone before it got to the object, or the answer was lost.
    struct Result {
        std::optional<std::string> text;
        std::string rejection;
        bool isFinal = false;  // a second process would come to the same
    };
    Result Read(const std::string& path, std::chrono::milliseconds limit) {
        stage.Set(Stage::kGiven);
        answer.clear();
        const auto give = [&] {
            return send(channel.Get(), path.c_str(), path.size(), MSG_NOSIGNAL);
        };
        if (posix::AcrossSignals(give) < 0) {
            End();
            return {};
        }
        const bool isFirst = !std::exchange(hasServed, true);
        switch (Await(limit)) {
            case Event::kAnswer:
                return {Text(), {}, true};
            case Event::kEnd:
                return ResultOfEnd(isFirst);
            case Event::kLost:
                End();
                return {};
            case Event::kNothing:
                break;
        }
        Kill();
        End();
        return {std::nullopt, "did not load within " + Seconds(limit) + " s", true};
    }

  private:
    enum class Event { kNothing, kAnswer, kLost, kEnd };

    // The end of the channel says nothing: an object may close it, and a process that it left behind may hold it open.
    Event Await(std::chrono::milliseconds limit) {
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
            if (watched[0].revents != 0) {
                const ssize_t length = ReceivePiece();
                if (length < 0 && errno != EAGAIN) {
                    return Event::kLost;
                }
                watched[0].fd = length == 0 ? -1 : watched[0].fd;
            }
            if (IsComplete()) {
                return Event::kAnswer;
            }
            if (watched[1].revents != 0) {
                return Event::kEnd;
            }
        }
    }

    // What an object may have written into the channel itself does not count.
    ssize_t ReceivePiece() {
        std::array<char, kPiece> piece;
        const ssize_t length =
            posix::AcrossSignals([&] { return recv(channel.Get(), piece.data(), piece.size(), MSG_DONTWAIT); });
        if (length > 0 && stage.Get() == Stage::kSurvived) {
            answer.append(piece.data(), static_cast<std::size_t>(length));
        }
        return length;
    }

    // The size, then as many bytes.
    bool IsComplete() const {
        std::uint64_t size = 0;
        if (answer.size() < sizeof size) {
            return false;
        }
        std::memcpy(&size, answer.data(), sizeof size);
        return answer.size() - sizeof size == size;
    }
    std::string Text() const { return answer.substr(sizeof(std::uint64_t)); }

    // A process that has read other objects before may have ended by what one of them left behind.
    Result ResultOfEnd(bool isFirst) {
        while (!IsComplete() && ReceivePiece() > 0) {
        }
        const int status = Reap();
        if (IsComplete()) {
            return {Text(), {}, true};
        }
        switch (stage.Get()) {
            case Stage::kGiven:
                return {};
            case Stage::kDescriptorsDisturbed:
                return {std::nullopt, "closed or replaced its loader's descriptors", true};
            case Stage::kLoading:
            case Stage::kSurvived:
                break;
        }
        return {std::nullopt, EndOf(status), isFirst};
    }

    void End() {
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
        child = 0;
    }

    bool EndsWithin(std::chrono::milliseconds patience) const {
        pollfd watched{childEnd.Get(), POLLIN, 0};
        return posix::AcrossSignals([&] { return poll(&watched, 1, static_cast<int>(patience.count())); }) > 0;
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
    std::string answer;          // as far as it has come
    bool hasServed = false;
};

ObjectReader::ObjectReader(std::chrono::milliseconds limit) : loadLimit(limit) {}

ObjectReader::~ObjectReader() = default;

PluginDescription ObjectReader::Describe(const std::string& name, const std::string& path) {
    constexpr int kProcesses = 2;  // the first may have ended by what an earlier object left behind
    for (int number = 0; isPossible && path.size() < PATH_MAX && number < kProcesses; ++number) {
        if (process == nullptr && !Start()) {
            GiveUp(errno);
            break;
        }
        const Process::Result result = process->Read(path, loadLimit);
        if (!process->IsRunning()) {
            process.reset();
        }
        if (result.text) {
            PluginDescription plugin(PluginKind::Native, name, path);
            try {
                FromText(*result.text, plugin);
            } catch (const std::invalid_argument&) {
                throw InvalidPluginException(path, "damaged its loader");
            }
            return plugin;
        }
        if (!result.rejection.empty() && (result.isFinal || number + 1 == kProcesses)) {
            throw InvalidPluginException(path, result.rejection);
        }
    }
    if (isPossible && path.size() < PATH_MAX) {
        GiveUp(ESRCH);
    }
    return DescribeNativePlugin(name, path);
}

bool ObjectReader::Start() {
    auto made = std::make_unique<Process>();
    if (!*made) {
        return false;
    }
    process = std::move(made);
    return true;
}

void ObjectReader::GiveUp(int reason) {
    if (std::exchange(isPossible, false)) {
        Log_Level(kWarning, "unable to load native plugins in a process of their own: %s\n", std::strerror(reason));
    }
}

}  // namespace lofter
