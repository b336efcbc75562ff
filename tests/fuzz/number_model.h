// Numbers read from text by the rules alone. The value of a decimal or hexadecimal fraction comes
// from std::from_chars, which shares no code with the C library's conversions.
#pragma once

#include "psp/core.h"

#include <charconv>
#include <cstddef>
#include <limits>
#include <string>
#include <system_error>
#include <type_traits>

__extension__ typedef __int128 WideInteger;

struct IntegerText {
    ZYN_RETCODE rc;
    WideInteger value;
};

inline bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

// Behind blanks and a sign, whose minus is told.
inline std::size_t skip_sign(const std::string& text, bool* negative)
{
    std::size_t at = text.find_first_not_of(" \t\n\v\f\r");
    at = at == std::string::npos ? text.size() : at;
    *negative = at < text.size() && text[at] == '-';
    return at < text.size() && (text[at] == '-' || text[at] == '+') ? at + 1 : at;
}

// Unsigned types take a minus for the complement to 2^64, and then look at the range.
template <class T>
IntegerText read_integer(const std::string& text)
{
    constexpr WideInteger wide = WideInteger{1} << 64;
    bool negative;
    WideInteger value = 0;
    for (std::size_t at = skip_sign(text, &negative); at < text.size() && is_digit(text[at]); at++)
        if (value < wide)
            value = value * 10 + (text[at] - '0');
    if (std::is_unsigned_v<T> && value >= wide)
        return {eRANGE, 0};
    if (negative)
        value = std::is_unsigned_v<T> && value != 0 ? wide - value : -value;
    if (value == 0)
        return {text == "0" ? ZYN_RETCODE{sOKAY} : ZYN_RETCODE{eINVSTRING}, 0};
    if (value < std::numeric_limits<T>::min() || value > std::numeric_limits<T>::max())
        return {eRANGE, 0};
    return {sOKAY, value};
}

// The value is also given where it is out of range: what the conversion comes to.
template <class T>
struct FloatText {
    ZYN_RETCODE rc;
    T value;
};

inline bool starts_with_letters(const std::string& text, std::size_t at, const std::string& word)
{
    for (std::size_t i = 0; i < word.size(); i++)
        if (at + i >= text.size() || (text[at + i] | 0x20) != word[i])
            return false;
    return true;
}

// Whether a number of the base begins there: a digit, or a point with one behind it.
inline bool begins_number(const std::string& text, std::size_t at, bool hex)
{
    const std::string digits = hex ? "0123456789abcdefABCDEF" : "0123456789";
    if (at < text.size() && text[at] == '.')
        at++;
    return at < text.size() && digits.find(text[at]) != std::string::npos;
}

// Whether a number that no value of the type stands for is too large, not too small: by the place
// of its first digit other than zero, and the exponent.
inline bool is_above_one(const std::string& text, std::size_t at, bool hex)
{
    const std::string digits = hex ? "0123456789abcdefABCDEF" : "0123456789";
    long place = 0;
    bool point = false;
    bool found = false;
    for (; at < text.size() &&
           (digits.find(text[at]) != std::string::npos || (text[at] == '.' && !point));
         at++) {
        found = found || (text[at] != '0' && text[at] != '.');
        if (text[at] == '.')
            point = true;
        else if (found != point)
            place += found ? 1 : -1;
    }
    long exponent = 0;
    if (at < text.size() && (text[at] | 0x20) == (hex ? 'p' : 'e')) {
        bool negative;
        for (at = at + 1 + skip_sign(text.substr(at + 1), &negative);
             at < text.size() && is_digit(text[at]) && exponent < 100000; at++)
            exponent = exponent * 10 + (text[at] - '0');
        exponent = negative ? -exponent : exponent;
    }
    return place * (hex ? 4 : 1) + exponent > 0;
}

template <class T>
FloatText<T> read_magnitude(const std::string& text, std::size_t at)
{
    if (starts_with_letters(text, at, "inf"))
        return {sOKAY, std::numeric_limits<T>::infinity()};
    if (starts_with_letters(text, at, "nan"))
        return {sOKAY, std::numeric_limits<T>::quiet_NaN()};
    const bool hex = starts_with_letters(text, at, "0x") && begins_number(text, at + 2, true);
    if (hex)
        at += 2;
    T value = 0;
    const auto format = hex ? std::chars_format::hex : std::chars_format::general;
    const auto end = std::from_chars(text.data() + at, text.data() + text.size(), value, format);
    if (end.ec != std::errc::result_out_of_range)
        return {sOKAY, value};
    return {eRANGE, is_above_one(text, at, hex) ? std::numeric_limits<T>::infinity() : T{0}};
}

template <class T>
FloatText<T> read_float(const std::string& text)
{
    bool negative;
    const std::size_t at = skip_sign(text, &negative);
    if (!begins_number(text, at, false) && !starts_with_letters(text, at, "inf") &&
        !starts_with_letters(text, at, "nan"))
        return {sOKAY, T{0}};
    FloatText<T> result = read_magnitude<T>(text, at);
    if (negative)
        result.value = -result.value;
    return result;
}
