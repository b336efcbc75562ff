// An input of the fuzzer of formatted output: a format of any bytes, with a value of the right type
// behind every directive that takes one.
#pragma once

#include "fuzz.h"
#include "support/float_model.h"
#include "support/format_model.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct FormatInput {
    std::string format{};
    std::vector<psptest::FormatValue> values{};
    psptest::NumberTexts texts{};
    bool foreign = false; // the C library has another idea of one of the directives
    std::vector<std::unique_ptr<char[]>> storage{}; // exact: an access beyond it is seen
};

// Walks over a format and adds what it takes. Two things are changed in the format: a number that
// would make megabytes becomes a small one, and it ends early when it takes too many values.
class ValueMaker {
  public:
    ValueMaker(FuzzedDataProvider& input, FormatInput& made) : input_(input), made_(made)
    {
        while (at_ < made_.format.size()) {
            if (made_.values.size() > most_values)
                made_.format.resize(at_);
            else if (made_.format[at_++] == '%')
                directive();
        }
    }

  private:
    static constexpr std::size_t most_values = 24;
    static constexpr int most_width = 300;

    char peek() const
    {
        return at_ < made_.format.size() ? made_.format[at_] : '\0';
    }

    static bool is_digit(char ch)
    {
        return ch >= '0' && ch <= '9';
    }

    template <class T>
    void add(T value)
    {
        made_.values.push_back(value);
    }

    // A width or a precision, which may be missing; nothing for a negative one.
    std::optional<std::size_t> number()
    {
        if (peek() == '*') {
            at_++;
            const int value = input_.ConsumeBool() ? input_.ConsumeIntegralInRange(-8, 24)
                                                   : input_.ConsumeIntegralInRange(-40, most_width);
            add(value);
            return value < 0 ? std::nullopt : std::optional<std::size_t>(value);
        }
        const std::size_t begin = at_;
        std::uint64_t value = 0;
        for (; is_digit(peek()); at_++)
            value = std::min<std::uint64_t>(value * 10 + static_cast<unsigned>(peek() - '0'),
                                            std::uint64_t{1} << 32);
        if (value > most_width && value <= INT_MAX) {
            value = 1 + value % most_width;
            made_.format.replace(begin, at_ - begin, std::to_string(value));
            at_ = begin + std::to_string(value).size();
        }
        return value;
    }

    void directive()
    {
        const std::size_t begin = at_;
        flags_.clear();
        while (peek() != '\0' && std::strchr(" #'+-0", peek()) != nullptr)
            flags_ += made_.format[at_++];
        has_width_ = peek() == '*' || is_digit(peek());
        number();
        precision_.reset();
        if (peek() == '.') {
            at_++;
            precision_ = number();
        }
        modifier_.clear();
        for (const char* modifier : {"hh", "h", "ll", "l", "L", "j", "z", "t"}) {
            if (made_.format.compare(at_, std::strlen(modifier), modifier) == 0) {
                modifier_ = modifier;
                break;
            }
        }
        at_ += modifier_.size();
        made_.foreign |= has('\'') && !made_.texts.separator.empty();
        if (at_ == made_.format.size()) {
            made_.foreign = true; // cut off
            return;
        }
        const bool bare = at_ == begin;
        value(made_.format[at_++], bare);
    }

    bool has(char flag) const
    {
        return flags_.find(flag) != std::string::npos;
    }

    void value(char type, bool bare)
    {
        switch (type) {
        case 'd':
        case 'i':
        case 'u':
        case 'o':
        case 'x':
        case 'X':
            return integer(type);
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
            return floating(type);
        case 's':
            return string();
        case 'p':
            return pointer();
        case 'c':
            made_.foreign |= has_width_ || !modifier_.empty();
            return add(input_.ConsumeIntegral<int>());
        case 'n':
            return count();
        default: // '%', and what is no conversion: no value
            made_.foreign |= type != '%' || !bare;
        }
    }

    void integer(char type)
    {
        made_.foreign |= modifier_ == "L" || (type == 'o' && has('#') && precision_);
        if (modifier_ == "L")
            return; // takes no value
        const auto shift = input_.ConsumeIntegralInRange(0, 63);
        const auto value = input_.ConsumeIntegral<intmax_t>() >> shift;
        if (modifier_.empty() || modifier_[0] == 'h')
            add(static_cast<int>(value));
        else
            add(value);
    }

    // Of any bits, or a number of the kind that people write.
    void floating(char type)
    {
        const auto bits = input_.ConsumeIntegral<std::uint64_t>();
        const int kind = input_.ConsumeIntegralInRange(0, 3);
        if (modifier_ == "L" && kind == 0)
            return add(wide_of(bits));
        double value;
        std::memcpy(&value, &bits, sizeof value);
        if (kind > 1)
            value = static_cast<double>(static_cast<std::int64_t>(bits) >> (bits & 63)) / 1024;
        made_.foreign |= !is_exact(type, value);
        if (modifier_ == "L")
            add(static_cast<long double>(value));
        else
            add(value);
    }

    // Of any sign, exponent and mantissa: some of these are no numbers to the processor. Those that
    // a power of ten without all its bits would be needed for come out more exact than the model's.
    long double wide_of(std::uint64_t mantissa)
    {
        made_.foreign = true;
        auto head = input_.ConsumeIntegral<std::uint16_t>();
        if ((head & 0x7FFF) < 8)
            head |= 8;
        long double value = 0;
        std::memcpy(&value, &mantissa, sizeof mantissa);
        std::memcpy(reinterpret_cast<char*>(&value) + sizeof mantissa, &head, sizeof head);
        return value;
    }

    // Whether the engine's decimal digits are all there is, so that no rounding can differ.
    bool is_exact(char type, long double value) const
    {
        const std::size_t digits = precision_.value_or(6);
        const long double magnitude = std::fabs(value);
        if (std::strchr("fFeE", type) == nullptr || digits > 19 || made_.texts.point != "." ||
            (modifier_ != "" && modifier_ != "l" && modifier_ != "L"))
            return false;
        if (std::isnan(value) || (value == 0 && std::signbit(value)))
            return false;
        if (std::isinf(value) || value == 0)
            return true;
        const bool fixed = type == 'f' || type == 'F';
        if (fixed ? magnitude >= 0x1p32L : magnitude < 1 || magnitude >= 10)
            return false;
        const long double scaled =
            std::ldexp(magnitude, static_cast<int>(std::min<std::size_t>(digits, 10)));
        return scaled == std::floor(scaled);
    }

    // With a precision the text may end without a NUL.
    void string()
    {
        made_.foreign |= has('0') || !modifier_.empty();
        if (input_.ConsumeIntegralInRange(0, 7) == 0)
            return add(static_cast<const void*>(nullptr));
        std::string text = input_.ConsumeRandomLengthString(40);
        if (!precision_ || text.size() < *precision_)
            text.push_back('\0');
        else
            made_.foreign = true; // an address checker may take it that the C library reads on
        char* const copy = allocated(text.size());
        std::copy(text.begin(), text.end(), copy);
        add(static_cast<const void*>(copy));
    }

    void pointer()
    {
        const auto value = input_.ConsumeBool() ? 0 : input_.ConsumeIntegral<std::uintptr_t>();
        made_.foreign |= has('+') || has(' ') || !modifier_.empty();
        made_.foreign |= value == 0 && (precision_ || has('0'));
        add(reinterpret_cast<const void*>(value));
    }

    void count()
    {
        made_.foreign = true; // it would store there as well
        if (modifier_ == "L")
            return; // takes no value
        const std::size_t size = modifier_.empty()   ? sizeof(int)
                                 : modifier_ == "hh" ? 1
                                 : modifier_ == "h"  ? 2
                                                     : 8;
        add(static_cast<const void*>(allocated(size)));
    }

    char* allocated(std::size_t size)
    {
        made_.storage.emplace_back(new char[size]);
        return made_.storage.back().get();
    }

    FuzzedDataProvider& input_;
    FormatInput& made_;
    std::size_t at_ = 0;
    // The directive at hand.
    std::string flags_{};
    bool has_width_ = false;
    std::optional<std::size_t> precision_{};
    std::string modifier_{};
};

// A format put together from what formats are made of: any bytes seldom make a directive.
inline std::string made_format(FuzzedDataProvider& input)
{
    static constexpr char flags[] = " #'+-0";
    static constexpr char conversions[] = "diuoxXsspcdiuoxXfFeEgGaAn%yq!";
    std::string format;
    for (int left = input.ConsumeIntegralInRange(1, 8); left > 0; left--) {
        format += input.ConsumeRandomLengthString(40) + '%';
        for (int more = input.ConsumeIntegralInRange(0, 3); more > 0; more--)
            format += flags[input.ConsumeIntegralInRange<std::size_t>(0, sizeof flags - 2)];
        if (input.ConsumeBool())
            format += input.ConsumeBool() ? "*" : std::to_string(input.ConsumeIntegral<uint8_t>());
        format += input.PickValueInArray<const char*>({"", "", ".", ".*", ".3", ".12", ".0"});
        format += input.PickValueInArray<const char*>(
            {"", "", "", "hh", "h", "l", "ll", "z", "t", "j", "L"});
        format += conversions[input.ConsumeIntegralInRange<std::size_t>(0, sizeof conversions - 2)];
    }
    return format + input.ConsumeRandomLengthString(40);
}

// The whole input: the format, its values, and what the locale says of numbers.
inline FormatInput make_format_input(FuzzedDataProvider& input)
{
    FormatInput made;
    made.texts = input.PickValueInArray<psptest::NumberTexts>(
        {{".", ""}, {".", ""}, {",", "."}, {"\xD9\xAB", "\xC2\xA0"}});
    made.format = input.ConsumeBool() ? made_format(input) : input.ConsumeRandomLengthString(200);
    made.format.resize(std::min(made.format.size(), made.format.find('\0')));
    ValueMaker(input, made);
    return made;
}
