// Wildcards against a matcher that says the rules again, one line a rule.
#include "fuzz.h"

#include "psp/scan.h"

#include <cctype>
#include <string>

namespace {

char upper(char c)
{
    return static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
}

bool accepts(char pattern, char c)
{
    if (pattern == '?')
        return true;
    if (pattern == '#')
        return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
    return upper(pattern) == upper(c);
}

// Behind a star stands a character that is found as it is, whatever it is.
bool matches(const char* str, const char* pattern)
{
    if (*pattern == '\0')
        return *str == '\0';
    if (*pattern != '*')
        return *str != '\0' && accepts(*pattern, *str) && matches(str + 1, pattern + 1);
    if (pattern[1] == '\0')
        return true;
    for (; *str != '\0'; str++)
        if (upper(*str) == upper(pattern[1]) && matches(str + 1, pattern + 2))
            return true;
    return false;
}

// Text that matches often: few different characters. Otherwise the bytes as they are.
std::string text(FuzzedDataProvider& input, std::size_t limit, bool narrow)
{
    constexpr char alphabet[] = "aAbB*?#09Ff.";
    std::string bytes = input.ConsumeRandomLengthString(limit);
    if (narrow)
        for (char& c : bytes)
            c = alphabet[static_cast<unsigned char>(c) % (sizeof alphabet - 1)];
    return bytes.substr(0, bytes.find('\0'));
}

} // namespace

// The lengths are bounded because both matchers try every way that stars can stretch.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const bool narrow = input.ConsumeBool();
    const std::string pattern = text(input, 12, narrow);
    const std::string str = text(input, 24, narrow);
    CHECK((psp_match(str.c_str(), pattern.c_str()) != ZYN_FALSE) ==
          matches(str.c_str(), pattern.c_str()));
    return 0;
}
