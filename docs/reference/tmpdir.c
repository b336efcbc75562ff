/* Data that does not fit in memory goes to a temporary file, where the application or its
   administrator wants such files to lie. */
#include <fcntl.h>
#include <stdio.h>

#include "psp.h"

enum { ROWS = 1000 };

/* Writes 0, 1, 4, 9 ... to a file of its own and adds them up again from there. */
static int spill(const char* path, uint64_t* sum)
{
    PSP_FH file = psp_fileOpen(path, O_RDWR | O_CREAT | O_EXCL, PSP_XFLAG_NOSYNC);
    if (file == NULL)
        return 0;
    int done = 1;
    for (uint64_t i = 0; done && i < ROWS; i++) {
        const uint64_t square = i * i;
        done = psp_fileWrite(file, &square, sizeof square) == sizeof square;
    }
    uint64_t row;
    *sum = 0;
    for (uint64_t i = 0; done && i < ROWS; i++) {
        done = psp_fileSeekRead(file, i * sizeof row, &row, sizeof row) == sizeof row;
        *sum += done ? row : 0;
    }
    psp_fileClose(file);
    return psp_fileRemove(path) == sOKAY && done;
}

static int run(PSP_MEMTAG tag)
{
    static uint32_t counter; /* its address is a part of every name */
    uint64_t sum = 0;
    printf("scratch can be written to: %s\n", psp_dirWritable("scratch") ? "yes" : "no");
    printf("missing can be written to: %s\n", psp_dirWritable("missing") ? "yes" : "no");

    /* Unless ZYN_TMPDIR says otherwise, this is scratch: the application's choice comes first. */
    const char* dir = psp_tmpdir(tag);
    const char* path = psp_fileCreateTmpName(&counter, "squares", "tmp", 0, tag);
    if (dir == NULL || path == NULL || !spill(path, &sum))
        return 0;
    printf("%d squares add up to %llu\n", ROWS, (unsigned long long)sum);
    return 1;
}

int main(void)
{
    psp_setTmpDir("scratch"); /* before other threads may ask */
    if (psp_init() != sOKAY)
        return 1;
    PSP_MEMTAG tag = psp_createTagEx(NULL, 0, BLOCK_ALLOCATOR, NULL, NULL, __FILE__, __LINE__);
    const int done = psp_dirCreate("scratch") == sOKAY && tag != NULL && run(tag);
    const int removed = psp_dirRemove("scratch") == sOKAY;
    psp_freeTagMem(tag, ZYN_TRUE, __FILE__, __LINE__);
    psp_term();
    return done && removed ? 0 : 1;
}
