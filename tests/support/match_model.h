// The wildcard rules by a table of all places in both texts: entry (i, k) tells whether the string
// from i on matches the pattern from k on.
#pragma once

#include <cctype>
#include <cstddef>
#include <string>

namespace psptest {

inline bool same_letter(char a, char b)
{
    return std::toupper(static_cast<unsigned char>(a)) ==
           std::toupper(static_cast<unsigned char>(b));
}

// Whether one character of a pattern, a star aside, accepts one of the string.
inline bool wildcard_accepts(char pattern, char c)
{
    if (pattern == '?')
        return true;
    if (pattern == '#')
        return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
    return same_letter(pattern, c);
}

inline bool wildcard_matches(const std::string& str, const std::string& pattern)
{
    const std::size_t end = pattern.size();
    const std::size_t width = str.size() + 1;
    std::string table((end + 2) * width, '\0'); // the row behind the last is never true
    char* const cells = table.data();
    cells[end * width + str.size()] = 1;
    for (std::size_t k = end; k-- > 0;) {
        char* const row = cells + k * width;
        const char* const next = row + width;
        const bool star = pattern[k] == '*';
        row[str.size()] = star && k + 1 == end;
        for (std::size_t i = str.size(); i-- > 0;) {
            if (!star)
                row[i] = next[i + 1] != 0 && wildcard_accepts(pattern[k], str[i]);
            else if (k + 1 == end)
                row[i] = 1;
            else // the character behind a star stands for itself, whatever it is
                row[i] = row[i + 1] != 0 ||
                         (next[width + i + 1] != 0 && same_letter(pattern[k + 1], str[i]));
        }
    }
    return cells[0] != 0;
}

} // namespace psptest
