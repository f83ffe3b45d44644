#include "hostkernel/hostkernel.h"

#include <algorithm>
#include <array>
#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

#include "Spawn.h"
#include "posix/Descriptor.h"

namespace {

constexpr int kFirstOther = STDERR_FILENO + 1;

// Moves streams out of the way of one another: a source below 3 may itself be the target of an earlier duplication.
class StreamSources {
  public:
    explicit StreamSources(const int standardStreams[3]) {
        for (std::size_t i = 0; i < numbers.size(); ++i) {
            numbers[i] = standardStreams[i];
            if (numbers[i] >= 0 && numbers[i] < kFirstOther) {
                copies[i].Reset(::fcntl(numbers[i], F_DUPFD_CLOEXEC, kFirstOther));
                numbers[i] = copies[i].Get();
                status = numbers[i] < 0 ? errno : status;
            }
        }
    }

    int Status() const { return status; }
    int operator[](int stream) const { return numbers[static_cast<std::size_t>(stream)]; }

  private:
    std::array<int, 3> numbers{};
    std::array<posix::Descriptor, 3> copies;
    int status = 0;
};

// The directory first: its descriptor may be one of those that the streams replace.
int Prepare(platform::SpawnFileActions& actions, int workingDirectory, const StreamSources& sources) {
    int status = actions.AddChangeDirectory(workingDirectory);
    for (int stream = 0; status == 0 && stream < kFirstOther; ++stream) {
        status = actions.AddDup2(sources[stream], stream);
    }
    return status != 0 ? status : actions.AddCloseFrom(kFirstOther);
}

}  // namespace

int HostKernel_ForkExec(const char* path, char* const arguments[], char* const environment[], int workingDirectory,
                        const int standardStreams[3], const HostKernelSpawnRecord* record) {
    if (record->userId != ::getuid() || record->groupId != ::getgid()) {
        return -EPERM;
    }
    const StreamSources sources(standardStreams);
    if (sources.Status() != 0) {
        return -sources.Status();
    }
    platform::SpawnFileActions actions;
    if (const int status = Prepare(actions, workingDirectory, sources); status != 0) {
        return -status;
    }
    const platform::SpawnAttributes attributes(POSIX_SPAWN_RESETIDS);
    return -::posix_spawn(record->processId, path, actions.Get(), attributes.Get(), arguments, environment);
}

unsigned HostKernel_ProcessorCount() {
    return static_cast<unsigned>(std::max(1L, ::sysconf(_SC_NPROCESSORS_ONLN)));
}
