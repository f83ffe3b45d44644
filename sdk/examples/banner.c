/*
 * A plugin with two operations: on a plain host it sets the login banner that it was built with, on a host that has a
 * host profile the one that the profile names. Which of the two runs is not the plugin's choice.
 */
#include <errno.h>
#include <lofter/plugin.h>
#include <stdio.h>
#include <string.h>

static const char kBanner[] = "/var/run/banner";
static const char kProfile[] = "/etc/tessel/hostprofile.xml";

static int Fail(const char* path, const char* reason) {
    fprintf(stderr, "banner: %s: %s\n", path, reason);
    return 1;
}

static int SetBanner(const char* text) {
    FILE* file = fopen(kBanner, "w");
    if (file == NULL) {
        return Fail(kBanner, strerror(errno));
    }
    const int written = fprintf(file, "%s\n", text);
    return fclose(file) == 0 && written >= 0 ? 0 : Fail(kBanner, strerror(errno));
}

static int Start(void) {
    return SetBanner("Welcome");
}

static int ApplyHostProfile(void) {
    FILE* file = fopen(kProfile, "r");
    if (file == NULL) {
        return Fail(kProfile, strerror(errno));
    }
    char line[256];
    char banner[128];
    int found = 0;
    while (!found && fgets(line, sizeof line, file) != NULL) {
        found = sscanf(line, " <banner>%127[^<]</banner>", banner) == 1;
    }
    fclose(file);
    return found ? SetBanner(banner) : Fail(kProfile, "names no banner");
}

LOFTER_PLUGIN_WITH_HOST_PROFILE(Start, ApplyHostProfile, LOFTER_NONE, LOFTER_LIST("banner"));
