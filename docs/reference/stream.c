/* Writes a poem into a UTF-16 file, as some editors would, and numbers the lines of that file. */
#include "psp.h"

#include <stdio.h>
#include <string.h>

#define POEM "poem.txt"

static const char* const lines[] = {
    "Über allen Gipfeln\n", "Ist Ruh,\n", "In allen Wipfeln\n", "Spürest du\n", "Kaum einen Hauch",
};

static int writePoem(void)
{
    PSP_FILE_STREAM out = psp_fopen(POEM, "w", PSP_FILE_MODE_UTF16);
    int written = 0;
    if (out == NULL)
        return 0;
    for (size_t i = 0; i < sizeof lines / sizeof *lines; i++)
        written += psp_fputs(lines[i], out) == (int32_t)strlen(lines[i]);
    psp_fclose(out);
    return written;
}

/* The mark at the file's start tells the reader what the file is; the text comes out in UTF-8. */
static int numberLines(PSP_FILE_STREAM in)
{
    char* line = NULL; /* grows with the longest line */
    uint32_t size = 0;
    int count = 0;
    while (psp_fGetLine(in, &line, &size, PSP_THREAD_TAG) != NULL) {
        line[strcspn(line, "\n")] = '\0';
        printf("%d  %s\n", ++count, line);
    }
    psp_freeMem(line, PSP_THREAD_TAG, __FILE__, __LINE__);
    return count;
}

int main(void)
{
    int written;
    int read = 0;

    if (psp_init() != sOKAY)
        return 1;
    written = writePoem();
    PSP_FILE_STREAM in = psp_fopen(POEM, "r", PSP_FILE_MODE_UNKNOWN);
    if (in != NULL) {
        read = numberLines(in);
        psp_fclose(in);
    }
    remove(POEM);
    psp_term();
    return written == 5 && read == 5 ? 0 : 1;
}
