/* The library on one page: start, memory, text, a file, a log line, stop.
 *
 *     hello [FILE]
 *
 * writes a greeting to FILE (hello.txt), reads it back and logs it. Four things to take away:
 *
 * - psp_init() comes first and psp_term() last; what lies between may fail, and psp_term() still
 *   runs.
 * - Memory belongs to a tag. The program allocates as it likes and frees the tag: nothing leaks.
 * - A status is compared with sOKAY, a pointer with NULL.
 * - Text is logged with psp_log(): to the console, and to the log file when one is open.
 */
#include <fcntl.h>
#include <string.h>

#include "psp.h"

/* Writes a text into a new file. A write gives all bytes or, on failure, 0. */
static ZYN_RETCODE write_text(const char* path, const char* text)
{
    const uint32_t size = (uint32_t)strlen(text);
    PSP_FH file = psp_fileOpen(path, O_WRONLY | O_CREAT | O_TRUNC, 0);
    if (file == NULL)
        return eFILEOPEN;
    const ZYN_RETCODE rc = psp_fileWrite(file, text, size) == size ? sOKAY : eBADWRITE;
    psp_fileClose(file);
    return rc;
}

/* Reads a whole file as a string that lives in the tag; NULL when that fails. */
static char* read_text(const char* path, PSP_MEMTAG tag)
{
    PSP_FH file = psp_fileOpen(path, O_RDONLY, 0);
    if (file == NULL)
        return NULL;
    const uint32_t size = (uint32_t)psp_fileLength(file);
    char* text = psp_getMem((size_t)size + 1, tag, PSP_MEM_ZERO, NULL, __FILE__, __LINE__);
    if (text != NULL && psp_fileRead(file, text, size) != size)
        text = NULL; /* the block goes with the tag */
    psp_fileClose(file);
    return text;
}

static ZYN_RETCODE greet(const char* path, PSP_MEMTAG tag)
{
    int16_t major, minor, build;
    psp_version(&major, &minor, &build);
    const char* greeting = psp_makeStrVA(__FILE__, __LINE__, tag, "Hello from version %d.%d.%d!\n",
                                         major, minor, build);
    if (greeting == NULL)
        return eNOMEMORY;
    const ZYN_RETCODE rc = write_text(path, greeting);
    if (rc != sOKAY)
        return rc;
    const char* text = read_text(path, tag);
    if (text == NULL)
        return eBADREAD;
    psp_log("%s: %s", path, text);
    return strcmp(text, greeting) == 0 ? sOKAY : eINVFILE;
}

int main(int argc, char** argv)
{
    if (psp_init() != sOKAY)
        return 1;
    /* A tag without a jump buffer: allocations that fail give NULL. */
    PSP_MEMTAG tag = psp_createTagEx(NULL, 0, BLOCK_ALLOCATOR, NULL, NULL, __FILE__, __LINE__);
    const ZYN_RETCODE rc = tag == NULL ? eNOMEMORY : greet(argc > 1 ? argv[1] : "hello.txt", tag);
    if (rc != sOKAY)
        psp_log_err("hello: failed with code %d\n", rc);
    psp_freeTagMem(tag, ZYN_TRUE, __FILE__, __LINE__);
    psp_term();
    return rc == sOKAY ? 0 : 1;
}
