/*
 * Preloaded into every program of a host root, and awake in lofter and its runner of native plugins only: makes one
 * call fail that would have succeeded. What to do is read from a file at a fixed path, which all processes of a run
 * share, and what happened is noted there: the runner of native plugins has no environment that could tell it.
 *
 * Calls are counted per process. Processes are numbered in the order of their forks: 0 is the first one that finds the
 * file; a fork's child counts from 1 again, before and after its exec. So "the 3rd write of process 2" is the same call
 * in every run, however the processes take turns.
 *
 * Instead of one failure there may be a storm: every call of the chosen kinds is interrupted first, and works when the
 * same thread repeats it.
 */
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#define CONTROL_FILE "/var/lib/faults"

/* In the order in which the runner of the runs lists them, too. */
enum Kind {
    OPEN,
    WRITE,
    READ,
    FSYNC,
    RENAME,
    MKSTEMP,
    FORK,
    DAEMON,
    SPAWN,
    SYSTEM,
    POPEN,
    THREAD,
    CONDITION,
    SOCKET,
    BIND,
    LISTEN,
    CONNECT,
    ACCEPT,
    SEND,
    RECV,
    WAITPID,
    SIGNAL,
    MALLOC,
    KINDS
};

#define PROCESSES 64
#define FRAMES 30

/* The shared file, native byte order. A new file is all zeros: nothing fails then. */
struct Control {
    uint32_t armed;
    uint32_t kind;
    uint32_t process;
    int32_t error;
    uint64_t number;
    uint32_t storm; /* a bit per kind */
    uint32_t wantsTrace;
    _Atomic uint32_t hits;
    _Atomic uint32_t processes;
    _Atomic uint32_t killedBy; /* the signal that ended a child, if any */
    uint32_t frameCount;
    uint64_t programBase;
    uint64_t frames[FRAMES];
    _Atomic uint64_t calls[PROCESSES][KINDS];
};

static struct Control* control;
static uint32_t process;
static _Thread_local bool interrupted[KINDS] __attribute__((tls_model("initial-exec")));

static void NumberProcess(void) {
    if (control != NULL) {
        process = atomic_fetch_add(&control->processes, 1);
        process = process < PROCESSES ? process : PROCESSES - 1;
    }
}

static void Trace(void) {
    void* frames[FRAMES];
    const int count = backtrace(frames, FRAMES);
    for (int i = 0; i < count; i++) {
        control->frames[i] = (uint64_t)(uintptr_t)frames[i];
    }
    control->frameCount = (uint32_t)count;
    /* The program's headers begin behind its ELF header, which is where it is loaded. */
    control->programBase = getauxval(AT_PHDR) & ~(uint64_t)0xfff;
}

/* The error of this call, or 0. */
static int Fault(enum Kind kind) {
    if (control == NULL) {
        return 0;
    }
    const uint64_t number = atomic_fetch_add(&control->calls[process][kind], 1) + 1;
    if ((control->storm & (1U << kind)) != 0) {
        interrupted[kind] = !interrupted[kind];
        if (interrupted[kind]) {
            atomic_fetch_add(&control->hits, 1);
            return EINTR;
        }
        return 0;
    }
    if (control->armed == 0 || control->kind != (uint32_t)kind || control->process != process ||
        control->number != number) {
        return 0;
    }
    atomic_fetch_add(&control->hits, 1);
    if (control->wantsTrace != 0) {
        Trace();
    }
    return control->error;
}

static bool Fails(enum Kind kind) {
    const int error = Fault(kind);
    if (error != 0) {
        errno = error;
    }
    return error != 0;
}

#define NEXT(name)                                \
    static __typeof__(name)* next;                \
    if (next == NULL) {                           \
        *(void**)&next = dlsym(RTLD_NEXT, #name); \
    }

/* A call that reports failures by its result and errno. */
#define CALL(kind, failure, result, name, parameters, arguments) \
    result name parameters {                                     \
        NEXT(name)                                               \
        return Fails(kind) ? (failure) : next arguments;         \
    }

/* One that returns the error. */
#define ERROR_CALL(kind, name, parameters, arguments) \
    int name parameters {                             \
        NEXT(name)                                    \
        const int error = Fault(kind);                \
        return error != 0 ? error : next arguments;   \
    }

static mode_t ModeOf(int flags, va_list list) {
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(list, mode_t) : 0;
}

#define OPEN_CALL(name)                                    \
    int name(const char* path, int flags, ...) {           \
        NEXT(name)                                         \
        va_list list;                                      \
        va_start(list, flags);                             \
        const mode_t mode = ModeOf(flags, list);           \
        va_end(list);                                      \
        return Fails(OPEN) ? -1 : next(path, flags, mode); \
    }

#define OPENAT_CALL(name)                                             \
    int name(int directory, const char* path, int flags, ...) {       \
        NEXT(name)                                                    \
        va_list list;                                                 \
        va_start(list, flags);                                        \
        const mode_t mode = ModeOf(flags, list);                      \
        va_end(list);                                                 \
        return Fails(OPEN) ? -1 : next(directory, path, flags, mode); \
    }

int __open_2(const char* path, int flags);
int __open64_2(const char* path, int flags);
int __openat_2(int directory, const char* path, int flags);
int __openat64_2(int directory, const char* path, int flags);
ssize_t __read_chk(int descriptor, void* buffer, size_t size, size_t room);
ssize_t __recv_chk(int descriptor, void* buffer, size_t size, size_t room, int flags);

OPEN_CALL(open)
OPEN_CALL(open64)
OPENAT_CALL(openat)
OPENAT_CALL(openat64)
CALL(OPEN, -1, int, __open_2, (const char* path, int flags), (path, flags))
CALL(OPEN, -1, int, __open64_2, (const char* path, int flags), (path, flags))
CALL(OPEN, -1, int, __openat_2, (int directory, const char* path, int flags), (directory, path, flags))
CALL(OPEN, -1, int, __openat64_2, (int directory, const char* path, int flags), (directory, path, flags))
CALL(OPEN, NULL, FILE*, fopen, (const char* path, const char* mode), (path, mode))
CALL(OPEN, NULL, FILE*, fopen64, (const char* path, const char* mode), (path, mode))
CALL(OPEN, NULL, DIR*, opendir, (const char* path), (path))

CALL(WRITE, -1, ssize_t, write, (int descriptor, const void* data, size_t size), (descriptor, data, size))
CALL(WRITE, -1, ssize_t, writev, (int descriptor, const struct iovec* parts, int count), (descriptor, parts, count))
CALL(READ, -1, ssize_t, read, (int descriptor, void* buffer, size_t size), (descriptor, buffer, size))
CALL(READ, -1, ssize_t, __read_chk, (int descriptor, void* buffer, size_t size, size_t room),
     (descriptor, buffer, size, room))
CALL(FSYNC, -1, int, fsync, (int descriptor), (descriptor))
CALL(FSYNC, -1, int, fdatasync, (int descriptor), (descriptor))
CALL(RENAME, -1, int, rename, (const char* from, const char* to), (from, to))
CALL(MKSTEMP, -1, int, mkstemp, (char* pattern), (pattern))
CALL(MKSTEMP, -1, int, mkstemp64, (char* pattern), (pattern))
CALL(MKSTEMP, -1, int, mkostemp, (char* pattern, int flags), (pattern, flags))

CALL(FORK, -1, pid_t, fork, (void), ())
CALL(DAEMON, -1, int, daemon, (int keepDirectory, int keepStreams), (keepDirectory, keepStreams))
CALL(SYSTEM, -1, int, system, (const char* command), (command))
CALL(POPEN, NULL, FILE*, popen, (const char* command, const char* mode), (command, mode))
ERROR_CALL(SPAWN, posix_spawn,
           (pid_t * child, const char* path, const posix_spawn_file_actions_t* actions,
            const posix_spawnattr_t* attributes, char* const arguments[], char* const environment[]),
           (child, path, actions, attributes, arguments, environment))
ERROR_CALL(THREAD, pthread_create,
           (pthread_t * thread, const pthread_attr_t* attributes, void* (*routine)(void*), void* argument),
           (thread, attributes, routine, argument))
ERROR_CALL(CONDITION, pthread_cond_init, (pthread_cond_t * condition, const pthread_condattr_t* attributes),
           (condition, attributes))

CALL(SOCKET, -1, int, socket, (int domain, int type, int protocol), (domain, type, protocol))
CALL(SOCKET, -1, int, socketpair, (int domain, int type, int protocol, int ends[2]), (domain, type, protocol, ends))
CALL(BIND, -1, int, bind, (int descriptor, __CONST_SOCKADDR_ARG address, socklen_t size), (descriptor, address, size))
CALL(LISTEN, -1, int, listen, (int descriptor, int backlog), (descriptor, backlog))
CALL(CONNECT, -1, int, connect, (int descriptor, __CONST_SOCKADDR_ARG address, socklen_t size),
     (descriptor, address, size))
CALL(ACCEPT, -1, int, accept, (int descriptor, __SOCKADDR_ARG address, socklen_t* size), (descriptor, address, size))
CALL(ACCEPT, -1, int, accept4, (int descriptor, __SOCKADDR_ARG address, socklen_t* size, int flags),
     (descriptor, address, size, flags))
CALL(SEND, -1, ssize_t, send, (int descriptor, const void* data, size_t size, int flags),
     (descriptor, data, size, flags))
CALL(SEND, -1, ssize_t, sendto,
     (int descriptor, const void* data, size_t size, int flags, __CONST_SOCKADDR_ARG address, socklen_t length),
     (descriptor, data, size, flags, address, length))
CALL(SEND, -1, ssize_t, sendmsg, (int descriptor, const struct msghdr* message, int flags),
     (descriptor, message, flags))
CALL(RECV, -1, ssize_t, recv, (int descriptor, void* buffer, size_t size, int flags), (descriptor, buffer, size, flags))
CALL(RECV, -1, ssize_t, recvfrom,
     (int descriptor, void* buffer, size_t size, int flags, __SOCKADDR_ARG address, socklen_t* length),
     (descriptor, buffer, size, flags, address, length))
CALL(RECV, -1, ssize_t, recvmsg, (int descriptor, struct msghdr* message, int flags), (descriptor, message, flags))
CALL(RECV, -1, ssize_t, __recv_chk, (int descriptor, void* buffer, size_t size, size_t room, int flags),
     (descriptor, buffer, size, room, flags))
CALL(SIGNAL, SIG_ERR, sighandler_t, signal, (int number, sighandler_t handler), (number, handler))

/* A child that a signal ended is noted: only its parent learns of it. */
pid_t waitpid(pid_t child, int* status, int options) {
    NEXT(waitpid)
    int own = 0;
    if (Fails(WAITPID)) {
        return -1;
    }
    const pid_t ended = next(child, &own, options);
    if (ended > 0) {
        if (status != NULL) {
            *status = own;
        }
        if (control != NULL && WIFSIGNALED(own)) {
            atomic_store(&control->killedBy, (uint32_t)WTERMSIG(own));
        }
    }
    return ended;
}

/* The C library's own, behind the names that the dynamic linker may need before it can look anything up. */
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* old, size_t size);

void* malloc(size_t size) {
    return Fails(MALLOC) ? NULL : __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
    return Fails(MALLOC) ? NULL : __libc_calloc(count, size);
}

void* realloc(void* old, size_t size) {
    return Fails(MALLOC) ? NULL : __libc_realloc(old, size);
}

static bool IsWatched(void) {
    return strcmp(program_invocation_short_name, "lofter") == 0 ||
           strcmp(program_invocation_short_name, "nativeExecutor") == 0;
}

__attribute__((constructor)) static void Awake(void) {
    if (!IsWatched()) {
        return;
    }
    const int file = open(CONTROL_FILE, O_RDWR | O_CLOEXEC);
    if (file < 0) {
        return;
    }
    void* shared = mmap(NULL, sizeof *control, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    if (shared == MAP_FAILED) {
        return;
    }
    if (((struct Control*)shared)->wantsTrace != 0) {
        void* one[1];
        backtrace(one, 1); /* loads what it needs, before any call counts */
    }
    pthread_atfork(NULL, NULL, NumberProcess);
    control = shared;
    NumberProcess();
}
