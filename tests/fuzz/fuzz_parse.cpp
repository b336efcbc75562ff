// Text that becomes words and numbers: tokens, bounded copies, integers, floating-point numbers and
// what is asked about them, against references that know neither the library nor what it calls.
#include "fuzz.h"
#include "library.h"
#include "number_model.h"

#include "psp/number.h"
#include "psp/string.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

namespace {

// A string with its NUL and not a byte more.
class Text {
  public:
    explicit Text(const std::string& text) : bytes_(text.begin(), text.end())
    {
        bytes_.push_back('\0');
    }
    char* data()
    {
        return bytes_.data();
    }

  private:
    std::vector<char> bytes_;
};

// ---- Words ----

struct Word {
    std::size_t at;
    std::string text;
};

std::string trimmed(const std::string& text, std::size_t* skipped)
{
    const std::size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos)
        return "";
    *skipped = first;
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::vector<Word> words_of(const std::string& text, const std::string& delimiters, bool trim)
{
    std::vector<Word> words;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find_first_of(delimiters, at), text.size());
        std::size_t skipped = 0;
        std::string word = text.substr(at, end - at);
        if (trim)
            word = trimmed(word, &skipped);
        if (!word.empty())
            words.push_back({at + skipped, word});
        at = end + 1;
    }
    return words;
}

void check_words(const std::string& text, const std::string& delimiters, bool trim, PSP_MEMTAG tag)
{
    Text copy(text);
    const char** words = nullptr;
    uint32_t count = 42;
    CHECK(psp_tokenize(copy.data(), delimiters.c_str(), &words, &count, trim, tag) == sOKAY);
    const std::vector<Word> expected = words_of(text, delimiters, trim);
    CHECK(count == expected.size() && (words == nullptr) == expected.empty());
    for (std::size_t i = 0; i < expected.size(); i++) {
        CHECK(words[i] == copy.data() + expected[i].at);
        CHECK(words[i] == expected[i].text);
    }
    psp_freeMem(words, tag, __FILE__, __LINE__);
}

// Token by token, with delimiters that change on the way.
void check_tokens(const std::string& text, const std::string& first, const std::string& others)
{
    Text copy(text);
    char* state = nullptr;
    std::size_t at = 0;
    const std::string* delimiters = &first;
    for (char* next = copy.data();; next = nullptr, delimiters = &others) {
        const char* token = psp_strtok(next, delimiters->c_str(), &state);
        at = std::min(text.find_first_not_of(*delimiters, at), text.size());
        CHECK((token == nullptr) == (at == text.size()));
        if (token == nullptr)
            return;
        const std::size_t end = std::min(text.find_first_of(*delimiters, at), text.size());
        CHECK(token == copy.data() + at && token == text.substr(at, end - at));
        at = std::min(end + 1, text.size());
    }
}

// ---- Bytes ----

void check_copy(const std::string& text, std::size_t length)
{
    const std::string part = text.substr(0, length == 0 ? 0 : length - 1);
    // Only as many bytes as count are there: no NUL needs to follow them.
    const auto source = exact(text.size() < length ? text + '\0' : part);
    const auto field = exact(std::string(length, '\x5A'));
    CHECK(psp_strncpyZ(field.get(), source.get(), length) == field.get());
    std::string expected = part;
    expected.resize(length, '\0');
    CHECK(std::string(field.get(), length) == expected);
    std::fill_n(field.get(), length, '\x5A');
    psp_strncpyZ(field.get(), nullptr, length);
    CHECK(std::string(field.get(), length) == std::string(length, '\0'));
}

void check_case(const std::string& text)
{
    std::string upper = text;
    std::string lower = text;
    for (std::size_t i = 0; i < text.size(); i++) {
        if (text[i] >= 'a' && text[i] <= 'z')
            upper[i] = static_cast<char>(text[i] - 'a' + 'A');
        if (text[i] >= 'A' && text[i] <= 'Z')
            lower[i] = static_cast<char>(text[i] - 'A' + 'a');
    }
    Text raised(text);
    Text lowered(text);
    CHECK(strupr(raised.data()) == raised.data() && raised.data() == upper);
    CHECK(strlwr(lowered.data()) == lowered.data() && lowered.data() == lower);

    const std::size_t dot = upper.rfind('.');
    const std::string set = dot == std::string::npos ? "" : upper.substr(dot + 1);
    CHECK(psp_locale_validate_utf8(text.c_str()) ==
          (set.empty() || set == "UTF-8" ? ZYN_TRUE : ZYN_FALSE));
    for (const char c : text) {
        const std::string digits = "0123456789abcdef0123456789ABCDEF";
        const std::size_t place = digits.find(c);
        CHECK(psp_hexdigit(c) == (place == std::string::npos ? 0xFF : place % 16));
    }
}

void check_message(int32_t error, PSP_MEMTAG tag)
{
    CHECK(taken(psp_strerr_alloc(error, tag), tag) == std::strerror(error));
}

// ---- Numbers in text ----

template <class T>
void check_integer(const std::string& text, ZYN_RETCODE (*parse)(const char*, T*))
{
    const IntegerText expected = read_integer<T>(text);
    T value = 42;
    CHECK(parse(text.c_str(), &value) == expected.rc);
    CHECK(value == (expected.rc == sOKAY ? static_cast<T>(expected.value) : 42));
    CHECK(parse(text.c_str(), nullptr) == expected.rc);
}

template <class T>
bool same_number(T a, T b)
{
    return std::isnan(a) ? std::isnan(b) : a == b && std::signbit(a) == std::signbit(b);
}

template <class T>
void check_float(const std::string& text, ZYN_RETCODE (*parse)(const char*, T*))
{
    const FloatText<T> expected = read_float<T>(text);
    T value = 42;
    CHECK(parse(text.c_str(), &value) == expected.rc);
    CHECK(same_number(value, expected.rc == sOKAY ? expected.value : T{42}));
    CHECK(parse(text.c_str(), nullptr) == expected.rc);
    if constexpr (sizeof(T) == sizeof(double))
        CHECK(same_number(psp_atof(text.c_str()), expected.value));
}

void check_numbers(const std::string& text)
{
    check_integer(text, psp_atoi32);
    check_integer(text, psp_atoui32);
    check_integer(text, psp_atoi64);
    check_integer(text, psp_atoui64);
    check_float(text, psp_strtod);
    check_float(text, psp_strtof);
}

// ---- Numbers ----

// By the bits: the exponent's are all set in what is not finite, and a NaN has others besides.
template <class T, class Bits>
void check_kind(T value, unsigned exponent_bits, ZYN_BOOL_T (*valid)(T, ZYN_FP_TYPE*),
                ZYN_BOOL_T (*is_nan)(T, ZYN_FP_SIGN*))
{
    Bits bits;
    std::memcpy(&bits, &value, sizeof bits);
    const unsigned fraction_bits = sizeof(Bits) * 8 - 1 - exponent_bits;
    const Bits exponent = bits >> fraction_bits & ((Bits{1} << exponent_bits) - 1);
    const bool negative = bits >> (sizeof(Bits) * 8 - 1) != 0;
    const bool finite = exponent != (Bits{1} << exponent_bits) - 1;
    const bool nan = !finite && (bits & ((Bits{1} << fraction_bits) - 1)) != 0;
    const ZYN_FP_SIGN sign = negative ? ZYN_FP_NEGATIVE : ZYN_FP_POSITIVE;
    // What was there before, and must not be what would be stored.
    const ZYN_FP_SIGN no_sign = negative ? ZYN_FP_POSITIVE : ZYN_FP_NEGATIVE;
    const ZYN_FP_TYPE no_type = negative ? ZYN_FP_POSITIVE_INF : ZYN_FP_NEGATIVE_INF;

    ZYN_FP_TYPE type = no_type;
    CHECK(valid(value, &type) == (finite ? ZYN_TRUE : ZYN_FALSE));
    const ZYN_FP_TYPE kind = nan        ? negative ? ZYN_FP_NEGATIVE_NAN : ZYN_FP_POSITIVE_NAN
                             : negative ? ZYN_FP_NEGATIVE_INF
                                        : ZYN_FP_POSITIVE_INF;
    CHECK(type == (finite ? no_type : kind));
    ZYN_FP_SIGN got = no_sign;
    CHECK(is_nan(value, &got) == (nan ? ZYN_TRUE : ZYN_FALSE) && got == (nan ? sign : no_sign));
    CHECK(is_nan(value, nullptr) == (nan ? ZYN_TRUE : ZYN_FALSE));
    CHECK(valid(value, nullptr) == (finite ? ZYN_TRUE : ZYN_FALSE));
    if constexpr (sizeof(T) == sizeof(float)) {
        got = no_sign;
        CHECK(psp_isinff(value, &got) == (finite ? ZYN_FALSE : ZYN_TRUE));
        CHECK(got == (finite ? no_sign : sign));
    }
}

// Whole numbers beside a value, by integer arithmetic where it is small enough to have some.
void check_rounding(double value)
{
    const double rounded = psp_round(value);
    const auto narrow = static_cast<float>(value);
    if (std::isnan(value)) {
        CHECK(std::isnan(rounded));
        CHECK(std::isnan(psp_floorf(narrow)) && std::isnan(psp_ceilf(narrow)));
        return;
    }
    if (!(std::fabs(value) < 0x1p40)) {
        CHECK(std::fabs(value) < 0x1p53 || rounded == value);
        CHECK(psp_floorf(narrow) == narrow && psp_ceilf(narrow) == narrow);
        return;
    }
    const double half = value < 0 ? value - 0.5 : value + 0.5;
    CHECK(rounded == static_cast<double>(static_cast<int64_t>(half))); // towards zero
    const auto whole = static_cast<float>(static_cast<int64_t>(narrow));
    CHECK(psp_floorf(narrow) == (whole > narrow ? whole - 1 : whole));
    CHECK(psp_ceilf(narrow) == (whole < narrow ? whole + 1 : whole));
}

void check_value(uint64_t bits)
{
    double value;
    std::memcpy(&value, &bits, sizeof value);
    const auto low = static_cast<uint32_t>(bits);
    float narrow;
    std::memcpy(&narrow, &low, sizeof narrow);
    check_kind<double, uint64_t>(value, 11, psp_validateDouble, psp_isnan);
    check_kind<float, uint32_t>(narrow, 8, psp_validateFloat, psp_isnanf);
    check_rounding(value);
    check_rounding(static_cast<double>(static_cast<int64_t>(bits)) / 1024);
}

// ---- Inputs ----

std::string any_text(FuzzedDataProvider& input, std::size_t limit)
{
    const std::string bytes = input.ConsumeRandomLengthString(limit);
    return bytes.substr(0, bytes.find('\0'));
}

// Characters that numbers are made of, and numbers next to where a type ends.
std::string number_text(FuzzedDataProvider& input)
{
    static constexpr const char* pieces[] = {"0",
                                             "1",
                                             "9",
                                             "-",
                                             "+",
                                             " ",
                                             ".",
                                             "e",
                                             "E",
                                             "0x",
                                             "p",
                                             "inf",
                                             "INFINITY",
                                             "nan",
                                             "nan(",
                                             ")",
                                             "2147483647",
                                             "2147483648",
                                             "4294967295",
                                             "4294967296",
                                             "9223372036854775807",
                                             "9223372036854775808",
                                             "18446744073709551615",
                                             "18446744073709551616",
                                             "1.7976931348623157e308",
                                             "1.7976931348623159e308",
                                             "4.9e-324",
                                             "2.4e-324",
                                             "3.4028235e38",
                                             "3.4028236e38",
                                             "1.4e-45",
                                             "7e-46",
                                             "\t",
                                             "a",
                                             "F",
                                             "00000000000000000000",
                                             "123456789",
                                             "5"};
    std::string text;
    for (int count = input.ConsumeIntegralInRange(0, 8); count > 0; count--)
        text += input.PickValueInArray(pieces);
    return text;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    start_library();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    PSP_MEMTAG tag = psp_createTagEx(nullptr, 0, BLOCK_ALLOCATOR, nullptr, nullptr, "", 0);
    CHECK(tag != nullptr);
    check_numbers(number_text(input));
    check_value(input.ConsumeIntegral<uint64_t>());
    check_message(input.ConsumeIntegralInRange<int32_t>(-10, 200), tag);
    const bool trim = input.ConsumeBool();
    const std::size_t length = input.ConsumeIntegralInRange<std::size_t>(0, 48);
    const std::string delimiters = any_text(input, 4);
    const std::string others = any_text(input, 4);
    const std::string text = any_text(input, 200);
    check_words(text, delimiters, trim, tag);
    check_tokens(text, delimiters, others);
    check_copy(text, length);
    check_case(text);
    check_numbers(text);
    CHECK(used_bytes(tag) == 0);
    psp_freeTagMem(tag, ZYN_TRUE, "", 0);
    return 0;
}
