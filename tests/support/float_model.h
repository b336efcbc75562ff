// Floating conversions told plainly: extended arithmetic in loops, text pieces put together one
// after the other. What the library must print, digit for digit.
#pragma once

#include "psptypes.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace psptest {

// One directive.
struct Directive {
    bool left = false, plus = false, space = false, alt = false, zero = false, group = false;
    std::size_t width = 0;
    std::optional<std::size_t> precision{};
    char type = 0; // conversion character
};

// What the C library says about numbers.
struct NumberTexts {
    std::string point = ".";
    std::string separator = "";
};

// "1234567" as "1,234,567": three digits a group, counted from the right.
inline std::string in_groups(const std::string& digits, const std::string& separator)
{
    std::string text;
    for (std::size_t i = 0; i < digits.size(); i++) {
        if (i != 0 && (digits.size() - i) % 3 == 0)
            text += separator;
        text += digits[i];
    }
    return text;
}

class FloatModel {
  public:
    FloatModel(const Directive& directive, const NumberTexts& texts)
        : directive_(directive), texts_(texts)
    {
    }

    // The text, or nothing where the value is out of range.
    std::optional<std::string> format(long double value)
    {
        const std::string sign = value < 0          ? "-"
                                 : directive_.plus  ? "+"
                                 : directive_.space ? " "
                                                    : "";
        if (value != value)
            return field(sign, upper() ? "NAN" : "nan", false);
        if (value != 0 && value + value == value)
            return field(sign, upper() ? "INF" : "inf", false);
        const std::optional<std::string> number = number_text(value < 0 ? -value : value);
        if (!number)
            return std::nullopt;
        return field(sign, *number, directive_.zero);
    }

  private:
    bool upper() const
    {
        return directive_.type >= 'A' && directive_.type <= 'Z';
    }

    static long double power(int exponent)
    {
        long double result = 1;
        for (; exponent > 0; exponent--)
            result *= 10;
        for (; exponent < 0; exponent++)
            result /= 10;
        return result;
    }

    static int exponent_of(long double magnitude)
    {
        int exponent = 0;
        if (magnitude == 0)
            return 0;
        for (long double t = 1; t > magnitude; t /= 10)
            exponent--;
        for (long double t = 10; magnitude >= t; t *= 10)
            exponent++;
        return exponent;
    }

    // Splits a magnitude into the two numbers, in either style; false: out of range.
    bool split(long double magnitude, bool estyle)
    {
        if (precision_ > 19)
            precision_ = 19;
        if (estyle)
            magnitude = magnitude / power(exponent_);
        if (magnitude >= 18446744073709551615.0L)
            return false;
        whole_ = static_cast<uint64_t>(magnitude);
        const long double scale = power(static_cast<int>(precision_));
        const long double scaled = (magnitude - static_cast<long double>(whole_)) * scale;
        fraction_ = static_cast<uint64_t>(scaled);
        if (scaled - static_cast<long double>(fraction_) >= 0.5L)
            fraction_++;
        if (static_cast<long double>(fraction_) >= scale) {
            fraction_ = 0;
            whole_++;
            if (estyle && whole_ == 10) {
                whole_ = 1;
                exponent_++;
            }
        }
        return true;
    }

    std::optional<std::string> number_text(long double magnitude)
    {
        const char style = static_cast<char>(directive_.type | 0x20);
        const bool general = style == 'g';
        bool estyle = general || style == 'e';
        precision_ = directive_.precision.value_or(6);
        exponent_ = estyle ? exponent_of(magnitude) : 0;
        if (general)
            precision_ = precision_ == 0 ? 0 : precision_ - 1; // 0 stands for 1
        if (!split(magnitude, estyle))
            return std::nullopt;
        if (general && exponent_ >= -4 && exponent_ < static_cast<int>(precision_) + 1) {
            estyle = false;
            precision_ = static_cast<std::size_t>(static_cast<int>(precision_) - exponent_);
            if (!split(magnitude, estyle))
                return std::nullopt;
        }
        std::string fraction = precision_ != 0 ? std::to_string(fraction_) : "";
        fraction.insert(0, precision_ - fraction.size(), '0');
        if (general && !directive_.alt)
            while (!fraction.empty() && fraction.back() == '0')
                fraction.pop_back();
        const std::string whole = std::to_string(whole_);
        std::string text = directive_.group ? in_groups(whole, texts_.separator) : whole;
        if (!fraction.empty() || directive_.alt)
            text += texts_.point;
        return text + fraction + (estyle ? exponent_text() : "");
    }

    std::string exponent_text() const
    {
        std::string digits = std::to_string(exponent_ < 0 ? -exponent_ : exponent_);
        if (digits.size() > 3)
            digits.erase(0, digits.size() - 3); // 1005 is shown as 005
        if (digits.size() < 2)
            digits.insert(0, 1, '0');
        return std::string(upper() ? "E" : "e") + (exponent_ < 0 ? "-" : "+") + digits;
    }

    std::string field(const std::string& sign, const std::string& body, bool zeros) const
    {
        const std::size_t total = sign.size() + body.size();
        const std::size_t missing = directive_.width > total ? directive_.width - total : 0;
        if (directive_.left)
            return sign + body + std::string(missing, ' ');
        if (zeros)
            return sign + std::string(missing, '0') + body;
        return std::string(missing, ' ') + sign + body;
    }

    Directive directive_;
    NumberTexts texts_;
    std::size_t precision_ = 0;
    int exponent_ = 0;
    uint64_t whole_ = 0;
    uint64_t fraction_ = 0;
};

} // namespace psptest
