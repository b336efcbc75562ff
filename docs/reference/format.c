/* Writes a record as JSON: the engine formats each value, and a callback escapes what it prints. */
#include "psp.h"

#include <stdio.h>

/* A growing text in the thread's tag. */
struct Text {
    char* bytes;
};

static ZYN_RETCODE append(struct Text* text, const char* bytes, int length)
{
    return psp_appendStrVA_rc(__FILE__, __LINE__, &text->bytes, PSP_THREAD_TAG, text->bytes, "%.*s",
                              length, bytes);
}

/* A ZYN_OUTPUT_FCN: takes a byte of a JSON string. What it returns ends the formatting. */
static ZYN_RETCODE putEscaped(ZYN_OUTPUT_CTX ctx, uint32_t ch)
{
    char escaped[8];
    const char* form = ch == '"' || ch == '\\' ? "\\%c" : ch < 0x20 ? "\\u%04x" : "%c";
    const int length = psp_snprintf(escaped, sizeof escaped, form, (int)ch);
    return append(ctx, escaped, length);
}

/* Adds `"name":"value"`, the value being any format with its values. */
PSP_PRINTF(3, 4)
static ZYN_RETCODE addField(struct Text* text, const char* name, const char* format, ...)
{
    va_list args;
    ZYN_RETCODE rc = psp_appendStrVA_rc(__FILE__, __LINE__, &text->bytes, PSP_THREAD_TAG,
                                        text->bytes, "%s\"%s\":\"", text->bytes ? "," : "", name);
    va_start(args, format);
    if (rc == sOKAY)
        rc = psp_vfnprintf(putEscaped, text, format, args);
    va_end(args);
    return rc == sOKAY ? append(text, "\"", 1) : rc;
}

int main(void)
{
    struct Text text = {NULL};
    ZYN_RETCODE rc;

    if (psp_init() != sOKAY)
        return 1;
    rc = addField(&text, "path", "C:\\tmp\\%s", "\"new\"\n");
    if (rc == sOKAY)
        rc = addField(&text, "size", "%.1f KiB", 1536 / 1024.0);
    if (rc == sOKAY)
        rc = addField(&text, "half", "%.0f and %.0f", 0.5, 2.5);
    if (rc == sOKAY)
        printf("{%s}\n", text.bytes);

    /* A value that fixed notation has no room for: the field ends where it stood. */
    const ZYN_RETCODE refused = addField(&text, "big", "%f", 1e20);
    printf("1e20: %s\n", refused == eRANGE ? "out of range" : "printed");

    psp_freeMem(text.bytes, PSP_THREAD_TAG, __FILE__, __LINE__);
    psp_term();
    return rc == sOKAY && refused == eRANGE ? 0 : 1;
}
