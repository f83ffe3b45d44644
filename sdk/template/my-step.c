/* Replace this by your boot step; rename the file and the targets that mention it. */
#include <lofter/plugin.h>
#include <stdio.h>

static int Start(void) {
    puts("my-step ran");
    return 0;
}

LOFTER_PLUGIN(Start, LOFTER_NONE, LOFTER_LIST("my-step"));
