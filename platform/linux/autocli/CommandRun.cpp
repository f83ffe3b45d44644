#include "autocli/CommandRun.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <span>
#include <string_view>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Spawn.h"
#include "autocli/Streams.h"
#include "posix/ChildProcess.h"
#include "posix/Descriptor.h"
#include "posix/Reason.h"

namespace platform {

namespace {

constexpr std::string_view kDispatcherVariable = "QORCLI_DISPATCHER=";

// The first lines of a command's standard error.
class ErrorText {
  public:
    void Append(std::string_view more) {
        const std::size_t taken = std::min(more.size(), kKeptErrorText - text.size());
        text.append(more.substr(0, taken));
        dropped += more.size() - taken;
    }
    // As it was written, for a log.
    std::string Text() const {
        const bool complete = text.empty() || text.ends_with('\n');
        return dropped == 0 ? text : text + (complete ? "" : "\n") + Note() + "\n";
    }

    std::vector<std::string> Lines() const {
        std::vector<std::string> lines;
        for (std::size_t start = 0; start < text.size();) {
            const std::size_t end = std::min(text.find('\n', start), text.size());
            lines.push_back(text.substr(start, end - start));
            start = end + 1;
        }
        if (dropped > 0) {
            lines.push_back(Note());
        }
        return lines;
    }

  private:
    std::string Note() const { return "(" + std::to_string(dropped) + " more bytes of standard error dropped)"; }

    std::string text;
    std::size_t dropped = 0;
};

// The reading end of a command's standard error.
class ErrorPipe {
  public:
    // Returns 0 or an errno.
    int Open() {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
            return errno;
        }
        readEnd.Reset(ends[0]);
        writeEnd.Reset(ends[1]);
        return ::fcntl(readEnd.Get(), F_SETFL, O_NONBLOCK) == 0 ? 0 : errno;
    }
    int ReadEnd() const { return readEnd.Get(); }
    int WriteEnd() const { return writeEnd.Get(); }
    void CloseReadEnd() { readEnd.Reset(); }
    void CloseWriteEnd() { writeEnd.Reset(); }

    // Moves up to `most` bytes of what is there now. False when nobody can write any more.
    bool Read(ErrorText& text, std::size_t most) const {
        std::array<char, std::size_t{16} * 1024> buffer;
        while (most > 0) {
            const ssize_t length = ::read(readEnd.Get(), buffer.data(), std::min(buffer.size(), most));
            if (length == 0) {
                return false;
            }
            if (length < 0) {
                return errno == EAGAIN || errno == EINTR;
            }
            text.Append({buffer.data(), static_cast<std::size_t>(length)});
            most -= static_cast<std::size_t>(length);
        }
        return true;
    }

    // What the pipe can hold; more than that was not in it when its writer ended.
    std::size_t Capacity() const {
        const int size = ::fcntl(readEnd.Get(), F_GETPIPE_SZ);
        return size > 0 ? static_cast<std::size_t>(size) : kKeptErrorText;
    }

  private:
    posix::Descriptor readEnd;
    posix::Descriptor writeEnd;
};

// Returns 0 or an errno.
int Prepare(SpawnFileActions& actions, const ErrorPipe& errors) {
    int status = actions.AddOpen(STDIN_FILENO, "/dev/null", O_RDONLY);
    status = status != 0 ? status : actions.AddDup2(errors.WriteEnd(), STDERR_FILENO);
    return status != 0 ? status : actions.AddCloseFrom(STDERR_FILENO + 1);
}

std::vector<std::string> EnvironmentFor(const std::string& dispatcher) {
    std::vector<std::string> environment;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        if (!std::string_view(*variable).starts_with(kDispatcherVariable)) {
            environment.emplace_back(*variable);
        }
    }
    environment.push_back(std::string(kDispatcherVariable) + dispatcher);
    return environment;
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

// Returns 0 or an errno.
int Spawn(pid_t& child, const std::string& program, const std::vector<std::string>& arguments,
          const std::string& dispatcher, const ErrorPipe& errors) {
    std::vector<std::string> words{program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<std::string> environment = EnvironmentFor(dispatcher);
    SpawnFileActions actions;
    if (const int status = Prepare(actions, errors); status != 0) {
        return status;
    }
    const SpawnAttributes cleanSignals;
    return ::posix_spawn(&child, program.c_str(), actions.Get(), cleanSignals.Get(), Pointers(words).data(),
                         Pointers(environment).data());
}

int WaitForEnd(pid_t child) {
    int status = 0;
    posix::WaitForChild(child, status);
    return status;
}

// Reads the errors until the process has ended. Whether somebody may still write then.
bool Follow(const posix::Descriptor& process, const ErrorPipe& errors, ErrorText& text) {
    std::array<pollfd, 2> watched{{{process.Get(), POLLIN, 0}, {errors.ReadEnd(), POLLIN, 0}}};
    do {
        for (pollfd& one : watched) {
            one.revents = 0;
        }
        if (::poll(watched.data(), watched.size(), -1) > 0 && watched[1].revents != 0 &&
            !errors.Read(text, errors.Capacity())) {
            watched[1].fd = -1;
        }
    } while (watched[0].revents == 0);
    return watched[1].fd != -1 && errors.Read(text, errors.Capacity());
}

// Copies everything that arrives to standard error, until nobody can write any more. Runs in a child of a process with
// threads, hence with nothing but system calls.
[[noreturn]] void CopyToStandardError(int source) {
    ::prctl(PR_SET_NAME, "qorcli-stderr");
    ::dup2(source, STDIN_FILENO);
    ::dup2(STDERR_FILENO, STDOUT_FILENO);
    ::close_range(STDERR_FILENO + 1, ~0U, 0);
    ::fcntl(STDIN_FILENO, F_SETFL, 0);
    std::array<char, 4096> buffer;
    ssize_t length = 0;
    while ((length = ::read(STDIN_FILENO, buffer.data(), buffer.size())) > 0 || (length < 0 && errno == EINTR)) {
        if (length > 0) {
            WriteAll(STDERR_FILENO, {buffer.data(), static_cast<std::size_t>(length)});
        }
    }
    ::_exit(0);
}

// Leaves the pipe to a process of its own. Without a reader, a process that the command left behind would be ended by
// SIGPIPE with the next line it writes, at the latest when this process ends and the other lives on.
void LeaveToCopier(const ErrorPipe& errors) {
    const pid_t child = ::fork();
    if (child == 0) {
        // The copier's parent is gone at once, so that nobody here has to wait for it.
        if (::fork() == 0) {
            CopyToStandardError(errors.ReadEnd());
        }
        ::_exit(0);
    }
    if (child > 0) {
        WaitForEnd(child);
    }
}

std::vector<std::string> Verdict(int status, const ErrorText& text) {
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
        WriteAll(STDERR_FILENO, text.Text());
        return {};
    }
    std::vector<std::string> errors = text.Lines();
    if (errors.empty()) {
        errors.push_back(WIFSIGNALED(status) ? "killed by signal " + std::to_string(WTERMSIG(status))
                                             : "exited with status " + std::to_string(WEXITSTATUS(status)));
    }
    return errors;
}

}  // namespace

std::vector<std::string> RunCommand(const std::string& program, const std::vector<std::string>& arguments,
                                    const std::string& dispatcher) {
    ErrorPipe errors;
    if (const int failure = errors.Open(); failure != 0) {
        return {posix::WithReason("no pipe for the errors of " + program, failure)};
    }
    pid_t child = 0;
    if (const int failure = Spawn(child, program, arguments, dispatcher, errors); failure != 0) {
        return {posix::WithReason("cannot run " + program, failure)};
    }
    errors.CloseWriteEnd();

    const posix::Descriptor process = posix::WatchProcess(child);
    if (!process) {
        // Nobody reads from here on, so the command ends instead of waiting for a reader.
        const int failure = errno;
        errors.CloseReadEnd();
        WaitForEnd(child);
        return {posix::WithReason("cannot watch " + program, failure)};
    }
    ErrorText text;
    if (Follow(process, errors, text)) {
        LeaveToCopier(errors);
    }
    return Verdict(WaitForEnd(child), text);
}

}  // namespace platform
