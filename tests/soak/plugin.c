/*
 * The native plugin of the soak: one compiled object that is any plugin, by what is written into its file.
 *
 * Strings are written into the text, and every pointer here is made to point at one of them, or to be a null pointer,
 * by its relocation. So the file alone says what the plugin is: nothing has to run for that.
 */
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#define ENTRIES 64

struct Block {
    uint32_t version;
    const char** lists[2]; /* required and provided barriers */
    const char* release;
    unsigned char runOnce;
    const char** flags[2]; /* required and disabling */
};

char text[16384] = "@the text of a plugin@";
const char* entries[4][ENTRIES] = {[0 ... 3] = {[0 ... ENTRIES - 1] = text}}; /* of the lists and the flags */
const char* work[2] = {text, text};

static int Start(void);
static int ApplyHostProfile(void);

struct Block metadata = {1, {entries[0], entries[1]}, text, 0, {entries[2], entries[3]}};
int (*operations[2])(void) = {Start, ApplyHostProfile};

/* Marks are single writes to a file opened for appending, so their order in the file is that of the operations. */
static void Mark(char sign, const char* name) {
    char line[80];
    const int length = snprintf(line, sizeof line, "%c%s\n", sign, name);
    const int file = open("/var/marks", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (file < 0 || write(file, line, (size_t)length) != length)
        _exit(99);
    close(file);
}

static int Do(const char* what) {
    char name[32];
    int pause, status, number;
    if (sscanf(what, "%31s %d %d %d", name, &pause, &status, &number) != 4)
        return 98;
    Mark('+', name);
    const struct timespec span = {pause / 1000, pause % 1000 * 1000000L};
    nanosleep(&span, NULL);
    Mark('-', name);
    if (number != 0) {
        signal(number, SIG_DFL);
        raise(number);
    }
    return status;
}

static int Start(void) {
    return Do(work[0]);
}
static int ApplyHostProfile(void) {
    return Do(work[1]);
}
