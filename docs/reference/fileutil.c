/* Editing a file with a way back: a copy first, a comparison afterwards, and the copy again when
   the edit went wrong. */
#include <fcntl.h>
#include <stdio.h>
#include <string.h>

#include "psp.h"

static const char* const path = "settings.conf";
static const char* const backup = "settings.bak";

static int append(const char* text)
{
    const uint32_t size = (uint32_t)strlen(text);
    PSP_FH file = psp_fileOpen(path, O_WRONLY | O_CREAT | O_APPEND, 0);
    const int written = psp_fileWrite(file, text, size) == size; /* 0 for no file */
    psp_fileClose(file);
    return written;
}

static const char* compared(void)
{
    switch (psp_fileCmp(path, backup)) {
    case sOKAY:
        return "as saved";
    case ePSP_FAILURE:
        return "changed";
    case ePSP_NOSOURCE:
        return "missing";
    case ePSP_NODEST:
        return "never saved";
    default:
        return "not compared: out of memory";
    }
}

static int edit(void)
{
    time64_t saved, changed;
    if (!append("colour = green\n"))
        return 0;
    printf("before the copy:  %s\n", compared());
    if (psp_fileCopy(path, backup) != sOKAY)
        return 0;
    printf("after the copy:   %s\n", compared());
    if (!append("colour = \n"))
        return 0;
    printf("after the edit:   %s\n", compared());
    if (psp_fileModTimeStat(backup, 0, &saved) != sOKAY ||
        psp_fileModTimeStat(path, 0, &changed) != sOKAY || changed < saved)
        return 0;
    if (psp_fileCopy(backup, path) != sOKAY) /* writes only what differs, and cuts the rest */
        return 0;
    printf("after going back: %s\n", compared());
    return 1;
}

int main(void)
{
    if (psp_init() != sOKAY)
        return 1;
    const int done = edit();
    const int removed = psp_fileRemove(path) == sOKAY && psp_fileRemove(backup) == sOKAY;
    printf("left behind: %s\n", psp_fileValidate(path) || psp_fileValidate(backup) ? "yes" : "no");
    psp_term();
    return done && removed ? 0 : 1;
}
