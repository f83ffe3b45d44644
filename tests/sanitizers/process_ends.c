/*
 * Linked into the program under the address sanitizer, which looks for leaks where main returns: the executor and other
 * processes that the program forks end by _exit, and are looked at here. What is found is reported as any leak.
 */
#include <sanitizer/lsan_interface.h>
#include <sys/stat.h>
#include <sys/types.h>

_Noreturn void __real__exit(int status);
pid_t __real_fork(void);

/* In a child, what only the parent's other threads knew would look like a leak. */
static int parentHadThreads = 0;

static int HaveThreads(void) {
    struct stat threads;
    return stat("/proc/self/task", &threads) != 0 || threads.st_nlink > 3; /* itself, its parent, and one thread */
}

pid_t __wrap_fork(void) {
    int haveThreads = HaveThreads();
    pid_t child = __real_fork();
    if (child == 0) {
        parentHadThreads |= haveThreads;
    }
    return child;
}

_Noreturn void __wrap__exit(int status) {
    if (!parentHadThreads) {
        __lsan_do_recoverable_leak_check();
    }
    __real__exit(status);
}
