// The bounded output buffer and string output: the byte-wise ends of the formatting engine that
// callers may use themselves. The engine's own buffer sink does the same in runs.
#include "psp/utf8.h"

void psp_utf8BuffInit(ZYN_OUTPUT_BUFF* info, char* buff, size_t size)
{
    *info = ZYN_OUTPUT_BUFF{};
    if (buff != nullptr && size != 0) {
        info->buff = buff;
        info->size = size - 1;
    }
}

static void emitUtf8Char(ZYN_OUTPUT_BUFF& info, char byte)
{
    if (info.buff == nullptr || info.used_elems >= info.size)
        info.done = ZYN_TRUE;
    if (!info.done) {
        info.buff[info.used_elems++] = byte;
        ++info.used_chars;
    }
    ++info.needed_elems;
    ++info.needed_chars;
}

ZYN_RETCODE psp_emitCharAsUtf8(ZYN_OUTPUT_CTX ctx, uint32_t uchar)
{
    emitUtf8Char(*static_cast<ZYN_OUTPUT_BUFF*>(ctx), static_cast<char>(uchar));
    return sOKAY;
}

void psp_utf8BuffTerm(ZYN_OUTPUT_BUFF* info)
{
    if (info->buff != nullptr) {
        ++info->size;
        info->done = ZYN_FALSE;
    }
    emitUtf8Char(*info, '\0');
}

ZYN_RETCODE psp_outputString(ZYN_OUTPUT_FCN fcn, ZYN_OUTPUT_CTX ctx, const char* str)
{
    ZYN_RETCODE rc = sOKAY;
    for (; *str != '\0' && rc == sOKAY; ++str)
        rc = fcn(ctx, static_cast<unsigned char>(*str));
    return rc;
}
