/* Writes a record as JSON: the engine formats each value, and a callback escapes what it prints. */
#include "psp.h"

#include <stdio.h>

/* A ZYN_OUTPUT_FCN: passes a byte of a value on as JSON wants it. What it returns other than sOKAY
   would end the formatting. */
static ZYN_RETCODE putEscaped(ZYN_OUTPUT_CTX ctx, uint32_t ch)
{
    char escaped[8];
    const char* form = ch == '"' || ch == '\\' ? "\\%c" : ch < 0x20 ? "\\u%04x" : "%c";
    psp_snprintf(escaped, sizeof escaped, form, (int)ch);
    return psp_outputString(psp_emitCharAsUtf8, ctx, escaped);
}

/* Adds `"name":"value"` to a record of the thread's tag, which is NULL at first. The value is a
   format with its values. After a failure the record is as before. */
PSP_PRINTF(3, 4)
static ZYN_RETCODE addField(char** record, const char* name, const char* format, ...)
{
    char value[64];
    ZYN_OUTPUT_BUFF buffer;
    ZYN_RETCODE rc;
    va_list args;

    psp_utf8BuffInit(&buffer, value, sizeof value);
    va_start(args, format);
    rc = psp_vfnprintf(putEscaped, &buffer, format, args);
    va_end(args);
    psp_utf8BuffTerm(&buffer);
    if (rc == sOKAY && buffer.needed_elems > sizeof value)
        rc = eTX_TRUNCATED;
    if (rc == sOKAY)
        rc = psp_appendStrVA_rc(__FILE__, __LINE__, record, PSP_THREAD_TAG, *record,
                                "%s\"%s\":\"%s\"", *record != NULL ? "," : "", name, value);
    return rc;
}

int main(void)
{
    char* record = NULL;
    int added = 0;

    if (psp_init() != sOKAY)
        return 1;
    added += addField(&record, "path", "C:\\new\\%s", "\"a\"\n") == sOKAY;
    added += addField(&record, "size", "%.1f KiB", 1536 / 1024.0) == sOKAY;
    added += addField(&record, "rounded", "%.0f and %.0f", 0.5, 2.5) == sOKAY;
    /* 1e100 has no room in the 64 bits of fixed notation, 100 zeros have none in the buffer: */
    added += addField(&record, "googol", "%f", 1e100) != eRANGE;
    added += addField(&record, "zeros", "%0100d", 0) != eTX_TRUNCATED;
    printf("{%s}\n", record);

    psp_freeMem(record, PSP_THREAD_TAG, __FILE__, __LINE__);
    psp_term();
    return added == 3 ? 0 : 1;
}
