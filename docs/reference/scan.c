/* Which log files lie in a directory, and how large they are together. */
#include <fcntl.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "psp.h"

#define LOGS "logs"
#define MOST 16

static const char* const made[] = {LOGS "/app-2.log", LOGS "/app-10.LOG", LOGS "/app-1.log",
                                   LOGS "/app-1.log.gz", LOGS "/notes.txt"};

static int make_files(void)
{
    if (psp_dirCreate(LOGS) != sOKAY || psp_dirCreate(LOGS "/old.log") != sOKAY)
        return 0;
    for (size_t i = 0; i < sizeof made / sizeof *made; i++) {
        PSP_FH file = psp_fileOpen(made[i], O_WRONLY | O_CREAT, 0);
        const uint32_t size = (uint32_t)strlen(made[i]);
        const int written = psp_fileWrite(file, made[i], size) == size;
        psp_fileClose(file);
        if (!written)
            return 0;
    }
    return 1;
}

static PSP_FILE_OFFSET length_of(const char* name)
{
    char path[300];
    snprintf(path, sizeof path, LOGS "/%s", name);
    PSP_FH file = psp_fileOpen(path, O_RDONLY, 0);
    const PSP_FILE_OFFSET length = psp_fileLength(file);
    psp_fileClose(file);
    return length;
}

static int by_name(const void* one, const void* other)
{
    return strcmp(one, other);
}

/* The scan keeps a name only until the next one: what is to stay is copied. It does not sort. */
static int list_logs(void)
{
    static char names[MOST][256];
    size_t count = 0;
    uint32_t isdir;
    const char* name;
    PSP_DIR scan = psp_pathOpen(LOGS, "app-*.log");
    if (scan == NULL)
        return 0;
    while (count < MOST && (name = psp_pathNext(scan, &isdir)) != NULL) {
        if (!isdir)
            snprintf(names[count++], sizeof *names, "%s", name);
    }
    psp_pathClose(scan);

    PSP_FILE_OFFSET total = 0;
    qsort(names, count, sizeof *names, by_name);
    for (size_t i = 0; i < count; i++) {
        total += length_of(names[i]);
        printf("%s%s\n", names[i], psp_match(names[i], "app-?.*") ? "" : " (two digits)");
    }
    printf("%zu logs, %" PRIu64 " bytes\n", count, total);
    return count == 3;
}

int main(void)
{
    if (psp_init() != sOKAY)
        return 1;
    int done = make_files() && list_logs();
    for (size_t i = 0; i < sizeof made / sizeof *made; i++)
        done = psp_fileRemove(made[i]) == sOKAY && done;
    done = psp_dirRemove(LOGS "/old.log") == sOKAY && psp_dirRemove(LOGS) == sOKAY && done;
    psp_term();
    return done ? 0 : 1;
}
