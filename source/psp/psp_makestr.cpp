// The builders: format into memory from a tag, new or at the end of a string that the tag owns.
//
// The text is made on the stack, which tells its length, and moves into the memory once there is
// some; a text too long for that is formatted a second time, with the same arguments, which the
// engine leaves untouched. The allocation may jump, so nothing is held across it. Lengths are
// 32-bit numbers; a string that would outgrow them is a failed allocation.
#include "psp/format.h"
#include "psp/mem.h"

#include <cstring>

namespace {

// As much as most texts need and every stack has.
using Draft = char[512];

// Writes the text of `length` bytes, whose start or whole is in the draft, and its NUL.
PSP_PRINTF(4, 0)
void finish(char* dest, const Draft& draft, int length, const char* fmt, va_list args)
{
    const size_t size = static_cast<size_t>(length) + 1;
    if (size <= sizeof draft)
        memcpy(dest, draft, size);
    else
        psp_vsnprintf(dest, size, fmt, args);
}

} // namespace

char* psp_makeStrV(const char* file, int32_t line, PSP_MEMTAG tag, const char* fmt, va_list args)
{
    Draft draft;
    const int length = psp_vsnprintf(draft, sizeof draft, fmt, args);
    if (length < 0)
        return nullptr;
    const size_t size = static_cast<size_t>(length) + 1;
    auto* const str = static_cast<char*>(psp_getMem(size, tag, PSP_MEM_PLAIN, nullptr, file, line));
    if (str != nullptr)
        finish(str, draft, length, fmt, args);
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
    Draft draft;
    const int length = psp_vsnprintf(draft, sizeof draft, fmt, args);
    if (length < 0)
        return nullptr;
    const size_t old_length = str != nullptr ? strlen(str) : 0;
    const size_t size = static_cast<size_t>(length) + 1;
    auto* const res = static_cast<char*>(
        psp_extendMem(str, old_length + size, tag, PSP_MEM_PLAIN, 0, nullptr, file, line));
    if (res != nullptr)
        finish(res + old_length, draft, length, fmt, args);
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
