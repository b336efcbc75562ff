// The formatting engine told plainly: one directive after the other, each put together from pieces
// of text. Tests run it beside the library on random formats.
#pragma once

#include "support/float_model.h"

#include "psptypes.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <variant>
#include <vector>

namespace psptest {

// A value behind a format, of the type that it is passed as.
using FormatValue = std::variant<int, intmax_t, const void*, double, long double>;

// Where '%n' stored, how many bytes, and what.
struct CountStored {
    const void* where;
    std::size_t size;
    uint64_t value;
};

class FormatModel {
  public:
    FormatModel(std::string fmt, std::vector<FormatValue> values, NumberTexts texts = {})
        : fmt_(std::move(fmt)), values_(std::move(values)), texts_(std::move(texts))
    {
        while (code == sOKAY && at_ < fmt_.size()) {
            const char ch = fmt_[at_++];
            if (ch != '%')
                text += ch;
            else
                directive();
        }
    }

    std::string text{};
    ZYN_RETCODE code = sOKAY;
    std::vector<CountStored> counts{};
    bool left_open = false; // a grouped field without digits: its padding may be there or not

  private:
    // ---- Reading ----

    char peek() const
    {
        return at_ < fmt_.size() ? fmt_[at_] : '\0';
    }

    bool accept(char ch)
    {
        if (peek() != ch)
            return false;
        at_++;
        return true;
    }

    template <class T>
    T next()
    {
        return std::get<T>(values_.at(used_++));
    }

    // Digits, which may be missing.
    std::size_t number()
    {
        uint64_t sum = 0;
        while (peek() >= '0' && peek() <= '9') {
            sum = sum * 10 + static_cast<uint64_t>(fmt_[at_++] - '0');
            if (sum > 2147483647) {
                code = eRANGE;
                return 0;
            }
        }
        return sum;
    }

    void directive()
    {
        d_ = {};
        modifier_.clear();
        for (bool more = true; more;) {
            if (accept('-'))
                d_.left = true;
            else if (accept('+'))
                d_.plus = true;
            else if (accept(' '))
                d_.space = true;
            else if (accept('#'))
                d_.alt = true;
            else if (accept('0'))
                d_.zero = true;
            else if (accept('\''))
                d_.group = true;
            else
                more = false;
        }
        if (accept('*')) {
            const int64_t width = next<int>();
            d_.left = d_.left || width < 0;
            d_.width = static_cast<std::size_t>(width < 0 ? -width : width);
        } else {
            d_.width = number();
        }
        if (code == sOKAY && accept('.')) {
            if (accept('*')) {
                const int precision = next<int>();
                if (precision >= 0)
                    d_.precision = static_cast<std::size_t>(precision);
            } else {
                d_.precision = number();
            }
        }
        if (code != sOKAY)
            return;
        for (const char* modifier : {"hh", "h", "ll", "l", "L", "j", "z", "t"}) {
            if (fmt_.compare(at_, std::strlen(modifier), modifier) == 0) {
                modifier_ = modifier;
                at_ += modifier_.size();
                break;
            }
        }
        if (at_ == fmt_.size())
            return; // cut off: dropped
        d_.type = fmt_[at_++];
        convert();
    }

    // ---- Conversions ----

    void convert()
    {
        switch (d_.type) {
        case 'd':
        case 'i':
            return signed_integer();
        case 'u':
            return integer("", "", unsigned_value(), 10);
        case 'o':
            return integer("", d_.alt ? "0" : "", unsigned_value(), 8);
        case 'x':
            return integer("", d_.alt ? "0x" : "", unsigned_value(), 16);
        case 'X':
            return integer("", d_.alt ? "0X" : "", unsigned_value(), 16);
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
            return floating();
        case 'c':
            text += static_cast<char>(next<int>());
            return;
        case 's':
            return string(static_cast<const char*>(next<const void*>()));
        case 'p':
            return pointer(next<const void*>());
        case 'n':
            return count();
        case '%':
            text += '%';
            return;
        default:
            return;
        }
    }

    intmax_t integer_value()
    {
        if (modifier_ == "L")
            return 0;
        if (modifier_.empty() || modifier_[0] == 'h')
            return next<int>();
        return next<intmax_t>();
    }

    void signed_integer()
    {
        intmax_t value = integer_value();
        if (modifier_ == "hh")
            value = static_cast<signed char>(value);
        else if (modifier_ == "h")
            value = static_cast<short>(value);
        const uintmax_t magnitude =
            value < 0 ? static_cast<uintmax_t>(-(value + 1)) + 1 : static_cast<uintmax_t>(value);
        integer(value < 0 ? "-" : d_.plus ? "+" : d_.space ? " " : "", "", magnitude, 10);
    }

    uintmax_t unsigned_value()
    {
        const intmax_t value = integer_value();
        if (modifier_ == "hh")
            return static_cast<unsigned char>(value);
        if (modifier_ == "h")
            return static_cast<unsigned short>(value);
        return modifier_.empty() ? static_cast<unsigned int>(value) : static_cast<uintmax_t>(value);
    }

    void integer(std::string sign, std::string prefix, uintmax_t magnitude, unsigned base)
    {
        const char* const all = d_.type == 'X' ? "0123456789ABCDEF" : "0123456789abcdef";
        std::string digits;
        for (uintmax_t rest = magnitude; rest != 0 || digits.empty(); rest /= base)
            digits.insert(0, 1, all[rest % base]);
        if (magnitude == 0)
            prefix.clear();
        std::optional<std::size_t> precision = d_.precision;
        if (prefix == "0" && precision) // the prefix is one of the digits asked for
            precision = *precision == 0 ? std::nullopt : std::optional(*precision - 1);
        if (precision == 0u && magnitude == 0)
            digits.clear();

        const std::size_t groups = digits.empty() ? 0 : (digits.size() - 1) / 3;
        const std::size_t separators = d_.group ? groups * texts_.separator.size() : 0;
        std::size_t zeros = 0, body = digits.size();
        if (precision) {
            const std::size_t used = digits.size() + separators;
            zeros = *precision > used ? *precision - used : 0;
            body = std::max(body, *precision);
        }
        const std::size_t total = separators + body + sign.size() + prefix.size();
        const std::size_t missing = d_.width > total ? d_.width - total : 0;
        if (d_.group && digits.empty() && !texts_.separator.empty())
            left_open = true;
        const bool fill = d_.zero && !precision && !d_.left;
        if (!d_.left && !fill)
            text.append(missing, ' ');
        text += sign + prefix;
        text.append(fill ? missing : zeros, '0');
        text += d_.group ? in_groups(digits, texts_.separator) : digits;
        if (d_.left)
            text.append(missing, ' ');
    }

    void floating()
    {
        const long double value = modifier_ == "L" ? next<long double>() : next<double>();
        if (const auto number = FloatModel(d_, texts_).format(value))
            text += *number;
        else
            code = eRANGE;
    }

    void string(const char* bytes)
    {
        if (bytes == nullptr)
            bytes = d_.precision && *d_.precision < 6 ? "" : "(null)";
        std::string shown;
        while ((!d_.precision || shown.size() < *d_.precision) && *bytes != '\0')
            shown += *bytes++;
        const std::string padding(d_.width > shown.size() ? d_.width - shown.size() : 0, ' ');
        text += d_.left ? shown + padding : padding + shown;
    }

    void pointer(const void* value)
    {
        if (value == nullptr)
            return string("(nil)");
        integer("", "0x", reinterpret_cast<uintptr_t>(value), 16);
    }

    void count()
    {
        if (modifier_ == "L")
            return;
        const auto now = static_cast<uint64_t>(text.size());
        const std::size_t size = modifier_.empty()   ? sizeof(int)
                                 : modifier_ == "hh" ? 1
                                 : modifier_ == "h"  ? 2
                                                     : 8;
        counts.push_back({next<const void*>(), size, now});
    }

    std::string fmt_;
    std::vector<FormatValue> values_;
    NumberTexts texts_;
    std::size_t at_ = 0;
    std::size_t used_ = 0;
    Directive d_{};
    std::string modifier_{};
};

// ---- Random formats ----

// A format with the four values that it may take; unused ones are there all the same.
struct RandomFormat {
    std::string fmt{};
    std::vector<FormatValue> values{};
};

// Where '%n' may store, big enough for every modifier.
struct CountTargets {
    std::array<uint64_t, 4> words{};
};

class FormatGenerator {
  public:
    static constexpr std::size_t max_values = 4;

    // With `grouping` every other directive asks for separators.
    FormatGenerator(uint32_t seed, CountTargets& targets, bool grouping = false)
        : random_(seed), targets_(targets), grouping_(grouping)
    {
    }

    RandomFormat next()
    {
        made_ = {};
        made_.fmt = literal();
        directives = 0;
        do {
            directive();
            directives++;
            made_.fmt += literal();
        } while (made_.values.size() < max_values && below(3) != 0);
        while (made_.values.size() < max_values)
            made_.values.push_back(0);
        return made_;
    }

    int directives = 0; // in the last format

  private:
    uint32_t below(uint32_t end)
    {
        return random_() % end;
    }

    std::string literal()
    {
        static const char* const texts[] = {"",         "",
                                            "",         "-",
                                            "x%%",      "h\xC3\xA9llo ",
                                            "\xFF\x80", "one more than sixteen bytes of text",
                                            ", "};
        return texts[below(std::size(texts))];
    }

    std::size_t room() const
    {
        return max_values - made_.values.size();
    }

    // A width or a precision; each asterisk needs a value and leaves one to the conversion.
    void number(int most)
    {
        if (below(4) == 0 && room() > 1) {
            made_.fmt += '*';
            made_.values.push_back(static_cast<int>(below(static_cast<uint32_t>(2 * most))) -
                                   most / 2);
        } else {
            made_.fmt += std::to_string(below(static_cast<uint32_t>(most)));
        }
    }

    void directive()
    {
        made_.fmt += '%';
        for (uint32_t flags = below(3) == 0 ? below(4) : below(2); flags > 0; flags--)
            made_.fmt += " #'+-0"[below(6)];
        if (grouping_ && below(2) == 0)
            made_.fmt += '\'';
        if (below(2) == 0)
            number(24);
        if (below(2) == 0) {
            made_.fmt += '.';
            if (below(6) != 0)
                number(below(4) == 0 ? 30 : 8);
        }
        static const char* const modifiers[] = {"hh", "h", "l", "ll", "L", "j", "z", "t"};
        std::string modifier = below(2) == 0 ? modifiers[below(8)] : "";
        if (room() == 0 && below(8) != 0)
            modifier = "L";
        char type = "diuoxXdiuoxXfFeEgGaAfegcspspn%y"[below(31)];
        if (room() == 0 && (modifier != "L" || std::string_view("diuoxXn").find(type) == SIZE_MAX))
            type = '%';
        made_.fmt += modifier + type;
        value(modifier, type);
    }

    void value(const std::string& modifier, char type)
    {
        if (type == '%' || type == 'y')
            return;
        auto& values = made_.values;
        if (type == 'c') {
            values.push_back(static_cast<int>(random_()));
        } else if (type == 's') {
            static const char* const texts[] = {nullptr,
                                                "",
                                                "a",
                                                "text",
                                                "12345678",
                                                "\xE2\x82\xAC 17 bytes here.",
                                                "a text of more than thirty-two bytes, all told"};
            values.push_back(static_cast<const void*>(texts[below(std::size(texts))]));
        } else if (type == 'p') {
            values.push_back(reinterpret_cast<const void*>(below(4) != 0 ? integer() : 0));
        } else if (std::string_view("fFeEgGaA").find(type) != SIZE_MAX) {
            if (modifier == "L")
                values.push_back(static_cast<long double>(number_value()) / 3);
            else
                values.push_back(number_value());
        } else if (modifier == "L") {
            return; // integers and counts of this size take none
        } else if (type == 'n') {
            values.push_back(static_cast<const void*>(&targets_.words[values.size()]));
        } else if (modifier.empty() || modifier[0] == 'h') {
            values.push_back(static_cast<int>(integer()));
        } else {
            values.push_back(integer());
        }
    }

    // Of every length, with the ends of the types.
    intmax_t integer()
    {
        switch (below(8)) {
        case 0:
            return 0;
        case 1:
            return INTMAX_MIN >> below(64);
        case 2:
            return static_cast<intmax_t>(UINTMAX_MAX >> below(64));
        case 3:
            return static_cast<intmax_t>(below(2000)) - 1000;
        default:
            return static_cast<intmax_t>(random64()) >> below(64);
        }
    }

    double number_value()
    {
        switch (below(6)) {
        case 0:
            return static_cast<double>(below(2001)) / 2 - 500;
        case 1:
            return static_cast<double>(integer());
        case 2: {
            const uint64_t bits = random64(); // any double at all
            double any;
            std::memcpy(&any, &bits, sizeof any);
            return any;
        }
        default:
            return static_cast<double>(integer()) / 4096 / static_cast<double>(1 + below(1000000));
        }
    }

    uint64_t random64()
    {
        return static_cast<uint64_t>(random_()) << 32 | random_();
    }

    std::mt19937 random_;
    CountTargets& targets_;
    bool grouping_;
    RandomFormat made_{};
};

// ---- From values to arguments ----

// Calls `function(context, fmt, ...)` with the values as arguments of their types.
template <class Context, class... Args>
void call_with_values(void (*function)(Context&, const char*, ...), Context& context,
                      const RandomFormat& format, Args... args)
{
    if constexpr (sizeof...(Args) == FormatGenerator::max_values)
        function(context, format.fmt.c_str(), args...);
    else
        std::visit([&](auto value) { call_with_values(function, context, format, args..., value); },
                   format.values[sizeof...(Args)]);
}

} // namespace psptest
