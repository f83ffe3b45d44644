#include "support/ChildOutcome.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <exception>
#include <stdexcept>

#include <sched.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include "support/ForkedChild.h"

namespace lofter::test {

namespace {

constexpr uid_t kNobody = 65534;

// Shared with the child, and reachable for one that has closed every descriptor.
class SharedText {
  public:
    SharedText()
        : memory(static_cast<char*>(mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
        if (static_cast<void*>(memory) == MAP_FAILED) {
            throw std::runtime_error("no shared memory");
        }
    }
    ~SharedText() { munmap(memory, kSize); }
    SharedText(const SharedText&) = delete;
    SharedText& operator=(const SharedText&) = delete;

    void Set(const std::string& text) { text.copy(memory, kSize - 1); }
    std::string Get() const { return memory; }

  private:
    static constexpr std::size_t kSize = 1U << 20U;
    char* memory;  // all zero at first
};

std::string Outcome(const std::function<std::string()>& action) {
    try {
        return action();
    } catch (const std::exception& e) {
        return std::string("threw: ") + e.what();
    }
}

void Require(int result, const char* what) {
    if (result != 0) {
        throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
    }
}

void Limit(int resource, rlim_t most) {
    const rlimit limit{most, most};
    Require(setrlimit(static_cast<__rlimit_resource>(resource), &limit), "setrlimit");
}

}  // namespace

std::string InForkedChild(const std::function<std::string()>& action) {
    SharedText text;
    ForkedChild child([&] {
        text.Set(Outcome(action));
        return 0;
    });
    const int status = child.Wait();
    if (status < 0) {
        return "killed by signal " + std::to_string(-status);
    }
    return status == 0 ? text.Get() : "exited with status " + std::to_string(status);
}

void EnterRoot(const std::string& directory) {
    if (geteuid() != 0) {
        Require(unshare(CLONE_NEWUSER), "unshare");
    }
    Require(chroot(directory.c_str()), "chroot");
    Require(chdir("/"), "chdir");
}

void LimitFileSize(unsigned long bytes) {
    std::signal(SIGXFSZ, SIG_IGN);
    Limit(RLIMIT_FSIZE, bytes);
}

void ForbidProcesses() {
    Limit(RLIMIT_NPROC, 0);
    // The limit does not bind root.
    if (geteuid() == 0) {
        Require(setuid(kNobody), "setuid");
    }
}

}  // namespace lofter::test
