/* The least a plugin can be: one operation, and one barrier that others can wait for. */
#include <lofter/plugin.h>
#include <stdio.h>

static int Start(void) {
    return puts("hello from a native plugin") < 0;
}

LOFTER_PLUGIN(Start, LOFTER_NONE, LOFTER_LIST("hello"));
