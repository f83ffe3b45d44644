/*
 * The interface of native plugins: a boot step that is a shared object.
 *
 * A plugin exports two data symbols, `metadata` (what it needs, what it offers) and `operations` (what it does). The
 * orchestrator loads the object only to read them and unloads it again; the operations run in a process of their own,
 * so a plugin that crashes fails alone. A whole plugin:
 *
 *     #include <lofter/plugin.h>
 *     static int Start(void) { return 0; }
 *     LOFTER_PLUGIN(Start, LOFTER_LIST("network"), LOFTER_LIST("clock"));
 *
 * Valid in C11, in C++17, and in everything later. The layout below is binary interface: it never changes.
 */
#ifndef LOFTER_PLUGIN_H
#define LOFTER_PLUGIN_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define LOFTER_STATIC_ASSERT(condition) static_assert(condition, #condition)
#else
#define LOFTER_STATIC_ASSERT(condition) _Static_assert(condition, #condition)
#endif

/* The two symbols stay visible when a plugin is compiled with -fvisibility=hidden. */
#define LOFTER_EXPORT __attribute__((visibility("default")))

/* Interface versions. Each one reads all that the one before it reads; the fourth reads what the third does. */
enum {
    LOFTER_VERSION_BASIC = 1,        /* the barriers, and the operation `start` */
    LOFTER_VERSION_HOST_PROFILE = 2, /* and the operation `apply_host_profile` */
    LOFTER_VERSION_RELEASE = 3,      /* and the release, run-once and boot flags */
    LOFTER_VERSION_LATEST = 4
};

#ifdef __cplusplus
extern "C" {
#endif

/* Texts up to the first null pointer. A null list and a list of nothing but a null pointer are both empty. */
typedef const char* const* lofter_list;

/*
 * What a plugin says of itself. The orchestrator copies what it needs and keeps no pointer into the object. It reads
 * the members below the line only in version 3 and later.
 */
struct lofter_metadata {
    uint32_t version;              /* 1 to 4; any other plugin is rejected */
    lofter_list required_barriers; /* must be reached before the plugin runs */
    lofter_list provided_barriers; /* are reached once the plugin has run, also when it failed */
    /* ----- */
    const char* plugin_version;  /* the plugin's own release; null for none */
    unsigned char run_once;      /* 1: run once for each plugin_version, 0: run on every boot */
    lofter_list required_flags;  /* boot flags that must all be given */
    lofter_list disabling_flags; /* boot flags of which any keeps the plugin from running */
};

/*
 * An operation. Its result is the exit status of the process that runs it: 0 is success, 1 to 255 is a failure that is
 * reported with that number, and anything else is a failure reported as 1. No C++ exception may leave it.
 */
typedef int (*lofter_operation)(void);

struct lofter_operations {
    lofter_operation start;              /* runs at boot */
    lofter_operation apply_host_profile; /* runs in place of start when the host has a host profile; null for none */
};

extern LOFTER_EXPORT const struct lofter_metadata metadata;
extern LOFTER_EXPORT const struct lofter_operations operations;

#ifdef __cplusplus
}
#endif

LOFTER_STATIC_ASSERT(sizeof(void*) == 8);
LOFTER_STATIC_ASSERT(sizeof(lofter_operation) == 8);
LOFTER_STATIC_ASSERT(offsetof(struct lofter_metadata, version) == 0);
LOFTER_STATIC_ASSERT(offsetof(struct lofter_metadata, required_barriers) == 8);
LOFTER_STATIC_ASSERT(offsetof(struct lofter_metadata, provided_barriers) == 16);
LOFTER_STATIC_ASSERT(offsetof(struct lofter_metadata, plugin_version) == 24);
LOFTER_STATIC_ASSERT(offsetof(struct lofter_metadata, run_once) == 32);
LOFTER_STATIC_ASSERT(offsetof(struct lofter_metadata, required_flags) == 40);
LOFTER_STATIC_ASSERT(offsetof(struct lofter_metadata, disabling_flags) == 48);
LOFTER_STATIC_ASSERT(sizeof(struct lofter_metadata) == 56);
LOFTER_STATIC_ASSERT(offsetof(struct lofter_operations, start) == 0);
LOFTER_STATIC_ASSERT(offsetof(struct lofter_operations, apply_host_profile) == 8);
LOFTER_STATIC_ASSERT(sizeof(struct lofter_operations) == 16);

/* A list of names, and the list without any, for the macros below. */
#define LOFTER_LIST(...) (__VA_ARGS__, NULL)
#define LOFTER_NONE (NULL)

/* A plugin that runs on every boot, between the barriers it requires and those it provides. */
#define LOFTER_PLUGIN(start, requires_list, provides_list)                                                      \
    LOFTER_DEFINE_PLUGIN(LOFTER_VERSION_BASIC, start, NULL, requires_list, provides_list, NULL, 0, LOFTER_NONE, \
                         LOFTER_NONE)

/* The same with an operation for hosts that have a host profile. */
#define LOFTER_PLUGIN_WITH_HOST_PROFILE(start, apply_host_profile, requires_list, provides_list)                     \
    LOFTER_DEFINE_PLUGIN(LOFTER_VERSION_HOST_PROFILE, start, apply_host_profile, requires_list, provides_list, NULL, \
                         0, LOFTER_NONE, LOFTER_NONE)

/* Everything. `apply_host_profile` and `plugin_version` may be NULL, any list LOFTER_NONE. */
#define LOFTER_PLUGIN_WITH_RELEASE(start, apply_host_profile, requires_list, provides_list, plugin_version, run_once, \
                                   required_flags, disabling_flags)                                                   \
    LOFTER_DEFINE_PLUGIN(LOFTER_VERSION_RELEASE, start, apply_host_profile, requires_list, provides_list,             \
                         plugin_version, run_once, required_flags, disabling_flags)

/*
 * What the macros above share. A list travels between macros in parentheses, since its commas would otherwise separate
 * arguments, and takes its braces here.
 */
#define LOFTER_BRACES(...) \
    { __VA_ARGS__ }
#define LOFTER_DEFINE_PLUGIN(version, start, apply_host_profile, requires_list, provides_list, plugin_version, \
                             run_once, required_flags, disabling_flags)                                        \
    static const char* const lofter_plugin_requires[] = LOFTER_BRACES requires_list;                           \
    static const char* const lofter_plugin_provides[] = LOFTER_BRACES provides_list;                           \
    static const char* const lofter_plugin_required_flags[] = LOFTER_BRACES required_flags;                    \
    static const char* const lofter_plugin_disabling_flags[] = LOFTER_BRACES disabling_flags;                  \
    const struct lofter_metadata metadata = {                                                                  \
        version,  lofter_plugin_requires,       lofter_plugin_provides,       plugin_version,                  \
        run_once, lofter_plugin_required_flags, lofter_plugin_disabling_flags};                                \
    const struct lofter_operations operations = {start, apply_host_profile}

#endif
