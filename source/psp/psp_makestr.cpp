// The builders: format into memory from a tag, new or at the end of a string that the tag owns.
//
// Each measures the text, allocates, and formats once more with the same arguments, which the
// engine leaves untouched. The allocation may jump, so nothing is held across it. Lengths are
// 32-bit numbers; a string that would outgrow them is a failed allocation.
#include "psp/format.h"
#include "psp/mem.h"

#include <cstring>

char* psp_makeStrV(const char* file, int32_t line, PSP_MEMTAG tag, const char* fmt, va_list args)
{
    const int length = psp_vsnprintf(nullptr, 0, fmt, args);
    if (length < 0)
        return nullptr;
    const size_t size = static_cast<size_t>(length) + 1;
    auto* const str = static_cast<char*>(psp_getMem(size, tag, PSP_MEM_PLAIN, nullptr, file, line));
    if (str != nullptr)
        psp_vsnprintf(str, size, fmt, args);
    return str;
}

char* psp_makeStrVA(const char* file, int32_t line, PSP_MEMTAG tag, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    char* const str = psp_makeStrV(file, line, tag, fmt, args);
    va_end(args);
    return str;
}

ZYN_RETCODE psp_makeStrVA_rc(const char* file, int32_t line, char** res, PSP_MEMTAG tag,
                             const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    char* const str = psp_makeStrV(file, line, tag, fmt, args);
    va_end(args);
    if (str == nullptr)
        return eNOMEMORY;
    *res = str;
    return sOKAY;
}

PSP_PRINTF(5, 0)
static char* psp_appendStrV(const char* file, int32_t line, PSP_MEMTAG tag, const char* str,
                            const char* fmt, va_list args)
{
    const int length = psp_vsnprintf(nullptr, 0, fmt, args);
    if (length < 0)
        return nullptr;
    const size_t old_length = str != nullptr ? strlen(str) : 0;
    const size_t size = static_cast<size_t>(length) + 1;
    auto* const res = static_cast<char*>(
        psp_extendMem(str, old_length + size, tag, PSP_MEM_PLAIN, 0, nullptr, file, line));
    if (res != nullptr)
        psp_vsnprintf(res + old_length, size, fmt, args);
    return res;
}

char* psp_appendStrVA(const char* file, int32_t line, PSP_MEMTAG tag, const char* str,
                      const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    char* const res = psp_appendStrV(file, line, tag, str, fmt, args);
    va_end(args);
    return res;
}

ZYN_RETCODE psp_appendStrVA_rc(const char* file, int32_t line, char** res, PSP_MEMTAG tag,
                               const char* str, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    char* const extended = psp_appendStrV(file, line, tag, str, fmt, args);
    va_end(args);
    if (extended == nullptr)
        return eNOMEMORY;
    *res = extended;
    return sOKAY;
}
