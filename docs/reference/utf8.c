/* Prints names in a column that is ten characters wide, whatever their bytes. */
#include "psp.h"

#include <stdio.h>
#include <string.h>

enum { COLUMN = 10 };

/* Gives the name in good UTF-8, a '?' for each damaged piece: never longer than before. */
static size_t repair(char* to, size_t room, const char* name)
{
    return psp_copyUTF8Chars(to, room, name, strlen(name), NULL, PSP_UTF8_ERROR_CONTINUE);
}

static void printRow(const char* name, size_t size)
{
    /* A long name ends where its tenth character does. */
    const size_t shown = psp_countUTF8bytes(name, size, COLUMN, PSP_UTF8_ERROR_BREAK);
    const size_t chars = psp_countUTF8chars(name, shown, PSP_UTF8_ERROR_BREAK);
    printf("|%.*s%*s| %zu bytes\n", (int)shown, name, (int)(COLUMN - chars), "", shown);
}

int main(void)
{
    static const char* const names[] = {
        "Zoe",     "Zoë", "Σωκράτης", "Björn Gustafsson", /* longer than the column */
        "Ren\xE9",                                        /* Latin-1: its last byte is no UTF-8 */
    };
    int damaged = 0;
    wchar_t* wide;

    for (size_t i = 0; i < sizeof names / sizeof *names; i++) {
        char name[64];
        const size_t size = repair(name, sizeof name, names[i]);
        const size_t chars = psp_countUTF8chars(names[i], strlen(names[i]), PSP_UTF8_ERROR_BREAK);
        damaged += chars == 0;
        printRow(name, size);
    }
    if (psp_init() != sOKAY ||
        psp_convToWchar_rc(names[1], PSP_UTF8_ERROR_BREAK, &wide, PSP_THREAD_TAG) != sOKAY)
        return 1;
    printf("%d damaged; the last letter of the second is U+%04X\n", damaged, (unsigned)wide[2]);
    psp_freeMem(wide, PSP_THREAD_TAG, __FILE__, __LINE__);
    psp_term();
    return damaged == 1 ? 0 : 1;
}
