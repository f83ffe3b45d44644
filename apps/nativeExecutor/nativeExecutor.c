/*
 * Runs one operation of one native plugin in a process of its own, so that a plugin that crashes takes nothing else
 * along.
 *
 *     nativeExecutor <object> <plugin> <method>
 *
 * The exit status is the operation's result: 0 is success, 1 to 255 is passed on, anything else becomes 1. Besides:
 *
 *     2    wrong number of arguments
 *     125  the object cannot be loaded
 *     126  the object lacks the operations table or the entry
 *     127  unknown method
 *
 * each with one line on standard error.
 */
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "lofter/plugin.h"

enum { kWrongUsage = 2, kCannotLoad = 125, kNoEntry = 126, kUnknownMethod = 127 };

struct Method {
    const char* name;
    size_t offset; /* of the entry in the operations table */
};

static const struct Method kMethods[] = {
    {"start", offsetof(struct lofter_operations, start)},
    {"apply_host_profile", offsetof(struct lofter_operations, apply_host_profile)},
};

/* The object while the loader runs its constructors, null at any other time. */
static const char* objectBeingLoaded;

/* Exit handler. Without it, a constructor that exits with 0 would pass for an operation that succeeded. */
static void RejectExitWhileLoading(int status, void* unused) {
    (void)unused;
    if (objectBeingLoaded != NULL && status == 0) {
        fprintf(stderr, "nativeExecutor: %s ended the process while it was being loaded\n", objectBeingLoaded);
        fflush(NULL);
        _exit(kCannotLoad);
    }
}

static const struct Method* FindMethod(const char* name) {
    for (size_t i = 0; i < sizeof kMethods / sizeof kMethods[0]; i++) {
        if (strcmp(kMethods[i].name, name) == 0) {
            return &kMethods[i];
        }
    }
    return NULL;
}

/* All symbols are resolved at once: a step that lacks a function does not run halfway before that shows. */
static void* Load(const char* object) {
    on_exit(RejectExitWhileLoading, NULL);
    objectBeingLoaded = object;
    void* handle = dlopen(object, RTLD_NOW | RTLD_GLOBAL);
    objectBeingLoaded = NULL;
    return handle;
}

static lofter_operation Entry(const struct lofter_operations* table, const struct Method* method) {
    lofter_operation entry;
    memcpy(&entry, (const char*)table + method->offset, sizeof entry);
    return entry;
}

int main(int argc, char** argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: nativeExecutor <object> <plugin> <method>\n");
        return kWrongUsage;
    }
    const char* plugin = argv[2];
    const struct Method* method = FindMethod(argv[3]);
    if (method == NULL) {
        fprintf(stderr, "nativeExecutor: plugin %s: unknown method %s\n", plugin, argv[3]);
        return kUnknownMethod;
    }
    void* handle = Load(argv[1]);
    if (handle == NULL) {
        fprintf(stderr, "nativeExecutor: plugin %s: %s\n", plugin, dlerror());
        return kCannotLoad;
    }
    const struct lofter_operations* table = dlsym(handle, "operations");
    if (table == NULL) {
        fprintf(stderr, "nativeExecutor: plugin %s: %s has no operations table\n", plugin, argv[1]);
        return kNoEntry;
    }
    lofter_operation entry = Entry(table, method);
    if (entry == NULL) {
        fprintf(stderr, "nativeExecutor: plugin %s: %s has no operation %s\n", plugin, argv[1], method->name);
        return kNoEntry;
    }
    int result = entry();
    return result >= 0 && result <= 255 ? result : 1;
}
