/*
 * A plugin that runs once: it draws the host's identity. The run is remembered under the plugin's name and release, so
 * the identity is drawn again only when the release below changes. A host that boots with the flag "rescue" keeps what
 * it has.
 */
#include <errno.h>
#include <lofter/plugin.h>
#include <stdio.h>
#include <string.h>
#include <sys/random.h>

static int Start(void) {
    unsigned char identity[16];
    if (getrandom(identity, sizeof identity, 0) != (ssize_t)sizeof identity) {
        fprintf(stderr, "identity: no random bytes: %s\n", strerror(errno));
        return 1;
    }
    FILE* file = fopen("/etc/host-identity", "w");
    if (file == NULL) {
        fprintf(stderr, "identity: /etc/host-identity: %s\n", strerror(errno));
        return 2;
    }
    for (size_t i = 0; i < sizeof identity; i++) {
        fprintf(file, "%02x", identity[i]);
    }
    fputc('\n', file);
    if (fclose(file) != 0) {
        fprintf(stderr, "identity: /etc/host-identity: %s\n", strerror(errno));
        return 2;
    }
    return 0;
}

LOFTER_PLUGIN_WITH_RELEASE(Start, NULL, LOFTER_NONE, LOFTER_LIST("identity"), "1.0", 1, LOFTER_NONE,
                           LOFTER_LIST("rescue"));
