/*
 * The native plugin of the soak: one compiled object that is any plugin, by what is written into its text.
 *
 * The text is a row of strings, each opened by a letter that says what it is; an empty one ends the row. The metadata
 * block is put together from it while the object is loaded, in the orchestrator as in the runner.
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

struct Block metadata;
int (*operations[2])(void);

static char text[16384] = "@the text of a plugin@";
static const char* entries[4][ENTRIES];
static const char* work[2];

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

static void Add(int list, const char* entry) {
    int count = 0;
    while (entries[list][count] != NULL)
        count++;
    if (count + 1 < ENTRIES)
        entries[list][count] = entry;
}

__attribute__((constructor)) static void PutTogether(void) {
    for (const char* entry = text; *entry != '\0'; entry += strlen(entry) + 1) {
        const char* value = entry + 1;
        switch (*entry) {
            case 'v':
                metadata.version = (uint32_t)strtoul(value, NULL, 10);
                break;
            case 'R':
                metadata.release = value;
                break;
            case 'o':
                metadata.runOnce = 1;
                break;
            case 'r':
                Add(0, value);
                break;
            case 'p':
                Add(1, value);
                break;
            case 'n':
                Add(2, value);
                break;
            case 'd':
                Add(3, value);
                break;
            case 's':
                work[0] = value;
                break;
            case 'a':
                work[1] = value;
                break;
            default:
                break;
        }
    }
    for (int list = 0; list < 2; list++) {
        /* No list and an empty one mean the same; both occur. */
        metadata.lists[list] = entries[list][0] == NULL && metadata.runOnce ? NULL : entries[list];
        metadata.flags[list] = entries[2 + list][0] == NULL && metadata.runOnce ? NULL : entries[2 + list];
    }
    operations[0] = Start;
    operations[1] = work[1] == NULL ? NULL : ApplyHostProfile;
}
