// Locales: the C library's, behind the library's names, and the check for UTF-8 code sets.
#include "psp/string.h"

#include <cstring>

#include <clocale>

char* psp_setlocale(int32_t category, const char* str)
{
    return setlocale(category, str); // NOLINT(concurrency-mt-unsafe): callers keep threads apart
}

locale_t psp_createlocale(int32_t category, const char* str)
{
    return newlocale(category, str, nullptr);
}

void psp_freelocale(locale_t locale)
{
    if (locale)
        freelocale(locale);
}

ZYN_BOOL_T psp_locale_validate_utf8(const char* strLocale)
{
    const char* dot = strLocale ? strrchr(strLocale, '.') : nullptr;
    if (!dot || dot[1] == '\0')
        return ZYN_TRUE;
    return strcasecmp(dot + 1, "UTF-8") == 0 ? ZYN_TRUE : ZYN_FALSE;
}
