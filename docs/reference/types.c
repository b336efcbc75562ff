/* Turns codes into names and texts. The list in zynretcodetypes.h has a row for each; a macro of
 * three arguments makes of the rows whatever is needed: here the branches of a switch. */
#include "psp.h"

static const char* name_of(ZYN_RETCODE rc)
{
    switch (rc) {
#define NAME(id, value, text)                                                                      \
    case id:                                                                                       \
        return #id;
        ZYN_RETCODE_LIST(NAME)
#undef NAME
    default:
        return "unknown";
    }
}

static const char* text_of(ZYN_RETCODE rc)
{
    switch (rc) {
#define TEXT(id, value, text)                                                                      \
    case id:                                                                                       \
        return text;
        ZYN_RETCODE_LIST(TEXT)
#undef TEXT
    default:
        return "no code of this library";
    }
}

/* Zero is success, a positive code a status, a negative one an error. */
static void show(ZYN_RETCODE rc)
{
    const char* kind = rc == sOKAY ? "success" : rc > 0 ? "status" : "error";
    psp_printf("%-7s %6d %-18s %s\n", kind, rc, name_of(rc), text_of(rc));
}

int main(void)
{
    if (psp_init() != sOKAY)
        return 1;
#define SHOW(id, value, text) show(id);
    ZYN_RETCODE_LIST(SHOW)
#undef SHOW
    show(-1);
    psp_term();
    return 0;
}
