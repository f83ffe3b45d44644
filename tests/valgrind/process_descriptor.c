/*
 * Preloaded into a run under valgrind, which does not pass pidfd_open on to the kernel in every version: a descriptor
 * that becomes readable when the process ends, made of an event and a thread that waits for the end.
 */
#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

struct Watch {
    pid_t process;
    int event;
};

static void* AwaitEnd(void* argument) {
    struct Watch watch = *(struct Watch*)argument;
    free(argument);
    siginfo_t information;
    while (waitid(P_PID, (id_t)watch.process, &information, WEXITED | WNOWAIT) == -1 && errno == EINTR) {
    }
    const uint64_t ended = 1;
    return write(watch.event, &ended, sizeof ended) == sizeof ended ? NULL : argument;
}

static long WatchProcess(pid_t process) {
    struct Watch* watch = malloc(sizeof *watch);
    int event = eventfd(0, EFD_CLOEXEC);
    pthread_t thread;
    if (watch == NULL || event == -1) {
        return -1;
    }
    watch->process = process;
    watch->event = event;
    if (pthread_create(&thread, NULL, AwaitEnd, watch) != 0 || pthread_detach(thread) != 0) {
        return -1;
    }
    return event;
}

/* Every other call goes where it would have gone. */
long syscall(long number, ...) {
    static long (*next)(long, ...);
    long arguments[6];
    va_list list;
    va_start(list, number);
    for (int i = 0; i < 6; i++) {
        arguments[i] = va_arg(list, long);
    }
    va_end(list);
    if (number == SYS_pidfd_open) {
        return WatchProcess((pid_t)arguments[0]);
    }
    if (next == NULL) {
        *(void**)&next = dlsym(RTLD_NEXT, "syscall");
    }
    return next(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
}
