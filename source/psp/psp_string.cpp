// Strings: case, bounded copies, tokens, error messages and hexadecimal digits.
//
// The two functions that allocate work for a caller's tag, which may carry a jump buffer: they
// allocate without jumping, give back what they have on failure, and only then let the tag jump.
#include "psp/string.h"

#include "pspint.h"

#include <cctype>
#include <cstring>

namespace {

// Converts the bytes of one class; the C library decides by the current locale.
char* convertCase(char* str, int (*isWanted)(int), int (*convert)(int))
{
    if (!str)
        return str;
    for (char* p = str; *p != '\0'; p++) {
        const int ch = static_cast<unsigned char>(*p);
        if (isWanted(ch))
            *p = static_cast<char>(convert(ch));
    }
    return str;
}

bool isBlank(char ch)
{
    return ch == ' ' || ch == '\t';
}

// Takes blanks off both ends of a word, in place.
char* trimmed(char* word)
{
    while (isBlank(*word))
        word++;
    char* end = word + strlen(word);
    while (end > word && isBlank(end[-1]))
        end--;
    *end = '\0';
    return word;
}

// The next word to be kept, or NULL; `str` and `rest` as for psp_strtok.
char* nextWord(char* str, const char* tokens, char** rest, bool trim)
{
    char* word = psp_strtok(str, tokens, rest);
    while (word && trim && *(word = trimmed(word)) == '\0')
        word = psp_strtok(nullptr, tokens, rest);
    return word;
}

// What a failed growth comes to: the block goes back to its tag, which may then jump.
void releaseAndRaise(const void* block, PSP_MEMTAG tag)
{
    psp_freeMem(block, tag, __FILE__, __LINE__);
    psp_memRaise(tag);
}

} // namespace

char* strupr(char* str)
{
    return convertCase(str, islower, toupper);
}

char* strlwr(char* str)
{
    return convertCase(str, isupper, tolower);
}

char* psp_strncpyZ(char* dest, const char* src, size_t len)
{
    if (len == 0)
        return dest;
    const size_t used = src ? strnlen(src, len - 1) : 0;
    if (used != 0)
        memcpy(dest, src, used);
    memset(dest + used, 0, len - used);
    return dest;
}

char* psp_strtok(char* str, const char* delim, char** saveptr)
{
    return strtok_r(str, delim, saveptr);
}

ZYN_RETCODE psp_tokenize(char* input, const char* tokens, const char*** words, uint32_t* numwords,
                         int32_t trim_spaces, PSP_MEMTAG tag)
{
    const char** found = nullptr;
    uint32_t count = 0;
    const bool trim = trim_spaces != 0;
    char* rest = nullptr;
    char* word = input ? nextWord(input, tokens, &rest, trim) : nullptr;
    for (; word; word = nextWord(nullptr, tokens, &rest, trim)) {
        void* grown = psp_memTryExtend(found, (count + size_t{1}) * sizeof word, tag, 1,
                                       sizeof word, nullptr);
        if (!grown) {
            releaseAndRaise(found, tag);
            return eNOMEMORY;
        }
        found = static_cast<const char**>(grown);
        found[count++] = word;
    }
    *words = found;
    *numwords = count;
    return sOKAY;
}

char* psp_strerr_alloc(int32_t err, PSP_MEMTAG tag)
{
    size_t size = 256;
    auto* buffer =
        static_cast<char*>(psp_getMem(size, tag, PSP_MEM_PLAIN, nullptr, __FILE__, __LINE__));
    while (buffer) {
        const char* message = strerror_r(err, buffer, size);
        if (message == buffer)
            return buffer;
        const size_t length = strlen(message);
        if (length < size) {
            memcpy(buffer, message, length + 1);
            return buffer;
        }
        void* grown = psp_memTryExtend(buffer, size * 2, tag, PSP_MEM_PLAIN, size, nullptr);
        if (!grown)
            releaseAndRaise(buffer, tag);
        buffer = static_cast<char*>(grown);
        size *= 2;
    }
    return nullptr;
}

uint8_t psp_hexdigit(char val)
{
    if (val >= '0' && val <= '9')
        return static_cast<uint8_t>(val - '0');
    if (val >= 'a' && val <= 'f')
        return static_cast<uint8_t>(val - 'a' + 10);
    if (val >= 'A' && val <= 'F')
        return static_cast<uint8_t>(val - 'A' + 10);
    return 0xFF;
}
