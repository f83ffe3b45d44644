/*
 * Linked into what counts its lines: writes the counts where a process ends other than by returning from main, or
 * becomes another program. A process that a signal ends takes its counts along.
 */
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

void __gcov_dump(void);
void __gcov_reset(void);

_Noreturn void __real__exit(int status);
_Noreturn void __real_abort(void);
int __real_chroot(const char* path);
int __real_execv(const char* path, char* const arguments[]);
int __real_execve(const char* path, char* const arguments[], char* const environment[]);

/* The root in which the files of counts are, when the process has entered another. */
static int firstRoot = -1;

int __wrap_chroot(const char* path) {
    if (firstRoot == -1) {
        firstRoot = open("/", O_PATH | O_CLOEXEC);
    }
    return __real_chroot(path);
}

static void WriteCounts(void) {
    if (firstRoot != -1 && (fchdir(firstRoot) != 0 || __real_chroot(".") != 0)) {
        return;
    }
    __gcov_dump();
}

_Noreturn void __wrap__exit(int status) {
    WriteCounts();
    __real__exit(status);
}

_Noreturn void __wrap_abort(void) {
    WriteCounts();
    __real_abort();
}

/* After a failure, the process goes on counting from nothing, for what it had is written down. */
int __wrap_execv(const char* path, char* const arguments[]) {
    __gcov_dump();
    int result = __real_execv(path, arguments);
    __gcov_reset();
    return result;
}

int __wrap_execve(const char* path, char* const arguments[], char* const environment[]) {
    __gcov_dump();
    int result = __real_execve(path, arguments, environment);
    __gcov_reset();
    return result;
}
