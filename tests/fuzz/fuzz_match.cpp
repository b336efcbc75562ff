// Wildcards against a matcher that tries every place.
#include "fuzz.h"
#include "support/match_model.h"

#include "psp/scan.h"

#include <string>

namespace {

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

// A string that the pattern was made for, but for what a change here and there did to it.
std::string filled(FuzzedDataProvider& input, const std::string& pattern)
{
    std::string str;
    for (const char c : pattern) {
        if (c == '*')
            str += text(input, 8, true);
        else if (c == '?')
            str += input.PickValueInArray({'a', '*', '?', '#', '\xFF'});
        else if (c == '#')
            str += input.PickValueInArray({'0', '9', 'A', 'F', 'a', 'G'});
        else
            str += c;
    }
    return str;
}

void check(const std::string& str, const std::string& pattern)
{
    CHECK(psp_match(str.c_str(), pattern.c_str()) ==
          (psptest::wildcard_matches(str, pattern) ? ZYN_TRUE : ZYN_FALSE));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const bool narrow = input.ConsumeBool();
    const std::string pattern = text(input, 48, narrow);
    check(filled(input, pattern), pattern);
    check(text(input, 160, narrow), pattern);
    check(pattern, pattern);
    CHECK(psp_match(nullptr, pattern.c_str()) == ZYN_FALSE);
    CHECK(psp_match(pattern.c_str(), nullptr) == ZYN_FALSE);
    return 0;
}
