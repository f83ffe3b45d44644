// Entry: what must be known before the first option is read, then the command line, then the run.

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <utility>

#include <fcntl.h>
#include <sys/sysinfo.h>
#include <sys/time.h>
#include <unistd.h>

#include "CommandLine.h"
#include "ProfilingLog.h"
#include "RunSequence.h"
#include "base/Logging.h"
#include "base/Paths.h"
#include "base/Settings.h"
#include "posix/AcrossSignals.h"
#include "posix/Descriptor.h"

// Host tools recognise the programs that speak the command protocol by this object. The program itself never reads it.
static const std::uint32_t qorclicMagic = 0x5CA1AB1E;
extern "C" {
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name is the host tools'
extern const std::uint32_t* const __qorclic_magic;
const std::uint32_t* const __qorclic_magic = &qorclicMagic;
}

namespace {

bool Opens(const char* path, int flags) {
    return posix::AcrossSignals([&] { return open(path, flags); }) >= 0;
}

// Files that are opened later must not become a standard stream that the invoking process left closed. What is opened
// gets the lowest free number, which is the stream's.
void OpenMissingStandardStreams() {
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
        if (fcntl(stream, F_GETFD) >= 0 || Opens(lofter::paths::kNull, O_RDWR) || Opens("/", O_RDONLY)) {
            continue;
        }
        int ends[2];
        if (pipe(ends) == 0) {
            const posix::Descriptor other(ends[1]);  // goes: what is read from the stream ends at once
        }
    }
}

// An invoking process that ignores the end of its children passes that on, and no child's status could be had then.
void HearOfChildren() {
    std::signal(SIGCHLD, SIG_DFL);
}

lofter::RunTimes StartOfRun() {
    lofter::RunTimes times;
    gettimeofday(&times.start, nullptr);
    struct sysinfo information {};
    if (sysinfo(&information) == 0) {
        times.uptime = static_cast<unsigned long>(information.uptime);
    }
    return times;
}

bool SetUpLogging() {
    try {
        lofter::InitializeLogging("lofter");
        return true;
    } catch (const std::exception& e) {
        Log_Level(lofter::kWarning, "Failed to initialize lofter: %s\n", e.what());
    } catch (...) {
        Log_Level(lofter::kWarning, "Failed to initialize lofter\n");
    }
    return false;
}

int RunProgram(int argc, char** argv, char** environment) {
    lofter::Settings& settings = lofter::Settings::Instance();
    settings.environment = environment;
    const lofter::RunTimes times = StartOfRun();
    if (!SetUpLogging()) {
        return EXIT_FAILURE;
    }
    lofter::CommandLine commandLine = lofter::ParseCommandLine(argc, argv, settings);
    if (commandLine.exitStatus) {
        return *commandLine.exitStatus;
    }
    return lofter::RunSequence(std::move(commandLine.options), times, settings).Run();
}

}  // namespace

int main(int argc, char** argv, char** environment) {
    OpenMissingStandardStreams();
    HearOfChildren();
    try {
        return RunProgram(argc, argv, environment);
    } catch (const std::exception& e) {
        Log_Level(lofter::kError, "unable to run: %s\n", e.what());
        return EXIT_FAILURE;
    }
}
