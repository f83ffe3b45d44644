#include "ProgramLauncher.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <sys/wait.h>
#include <unistd.h>

#include "base/Logging.h"
#include "posix/ChildProcess.h"

namespace lofter {

namespace {

[[noreturn]] void RunInChild(const char* const arguments[], char* const environment[], const char* logPath) {
    posix::CloseDescriptorsFrom(STDERR_FILENO + 1);
    RedirectStandardStreams(logPath);
    execve(arguments[0], const_cast<char* const*>(arguments), environment);
    Log_Level(kError, "execve(%s) failure: %s\n", arguments[0], std::strerror(errno));
    _exit(EXIT_FAILURE);
}

}  // namespace

bool LaunchProgram(const char* const arguments[], char* const environment[], const char* logPath) {
    const pid_t child = fork();
    if (child < 0) {
        return false;
    }
    if (child == 0) {
        RunInChild(arguments, environment, logPath);
    }
    int status = 0;
    return posix::WaitForChild(child, status) && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace lofter
