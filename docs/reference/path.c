/* Storing a file at a path that a user gave: its directories are made first, and made durable. */
#include <fcntl.h>
#include <stdio.h>
#include <string.h>

#include "psp.h"

static int store(const char* path)
{
    PSP_FH file = psp_fileOpen(path, O_WRONLY | O_CREAT, 0);
    const int written = psp_fileWrite(file, "day 1\n", 6) == 6 && psp_fileSync(file) == sOKAY;
    psp_fileClose(file);
    return written;
}

/* The part of a full path below the current directory. */
static const char* below(const char* full, PSP_MEMTAG tag)
{
    const char* here = psp_currdirEx(tag);
    if (full == NULL || here == NULL || strncmp(full, here, strlen(here)) != 0)
        return NULL;
    return full + strlen(here) + 1;
}

static int run(const char* path, PSP_MEMTAG tag)
{
    char* dir = NULL;
    char* file = NULL;
    if (psp_pathSplitEx(path, &dir, &file, tag) != sOKAY || dir == NULL || file == NULL)
        return 0;
    printf("directory %s, file %s\n", dir, file);

    /* "logs/2026/" ends with a separator; psp_fullpathEx() drops it. The joined path is memory of
       the thread's tag. */
    char* full = psp_fullpathEx(dir, tag);
    const char* shown = below(full, tag);
    if (shown == NULL)
        return 0;
    printf("in full: .../%s\n", shown);

    const ZYN_RETCODE made = psp_dirCreateAll(full);
    const ZYN_RETCODE again = psp_dirCreateAll(full);
    printf("made: %s, again: %s\n", made == sOKAY ? "sOKAY" : "?",
           again == sDUPLICATE ? "sDUPLICATE" : "?");

    /* Each name that is new must be durable in the directory above it. */
    const int stored = store(path) && psp_dirSync(dir) == sOKAY && psp_dirSync("logs") == sOKAY &&
                       psp_dirSync(".") == sOKAY;
    printf("while not empty: %s\n", psp_dirRemove(dir) == sOKAY ? "removed" : "kept");
    psp_freeMem(full, PSP_THREAD_TAG, __FILE__, __LINE__);
    return stored && made == sOKAY && again == sDUPLICATE;
}

int main(void)
{
    if (psp_init() != sOKAY)
        return 1;
    PSP_MEMTAG tag = psp_createTagEx(NULL, 0, BLOCK_ALLOCATOR, NULL, NULL, __FILE__, __LINE__);
    const int done = tag != NULL && run("logs/2026/day.log", tag);
    const int removed = psp_fileRemove("logs/2026/day.log") == sOKAY &&
                        psp_dirRemove("logs/2026") == sOKAY && psp_dirRemove("logs") == sOKAY;
    psp_freeTagMem(tag, ZYN_TRUE, __FILE__, __LINE__); /* the other strings go with their tag */
    psp_term();
    return done && removed ? 0 : 1;
}
