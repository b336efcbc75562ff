// The digits of formatted numbers, and what the C locale puts between them.
//
// Digits come two at a time from tables of pairs, the last ones first; decimal ones in blocks of
// eight, so that the divisions of a long number do not wait for one another. The caller has room
// for them all: count_digits tells how many there are. The locale is the C library's and is only
// read.
#include "psp_internal.h"

// All pairs of digits in a base, as text.
template <size_t Base>
static constexpr auto make_pairs(const char* digits)
{
    std::array<char, Base * Base * 2> pairs{};
    for (size_t i = 0; i < Base * Base; ++i) {
        pairs[i * 2] = digits[i / Base];
        pairs[i * 2 + 1] = digits[i % Base];
    }
    return pairs;
}

static constexpr auto DECIMAL_PAIRS = make_pairs<10>("0123456789");
static constexpr auto LOWER_PAIRS = make_pairs<16>("0123456789abcdef");
static constexpr auto UPPER_PAIRS = make_pairs<16>("0123456789ABCDEF");

static inline char* put_pair(char* end, const char* pairs, size_t val)
{
    memcpy(end - 2, pairs + val * 2, 2);
    return end - 2;
}

// Eight digits in two halves that do not wait for each other.
static inline char* put_eight(char* end, uint32_t val)
{
    const char* const pairs = DECIMAL_PAIRS.data();
    const uint32_t high = val / 10000, low = val % 10000;
    put_pair(end, pairs, low % 100);
    put_pair(end - 2, pairs, low / 100);
    put_pair(end - 4, pairs, high % 100);
    return put_pair(end - 6, pairs, high / 100);
}

struct REMAINDER {
    char* end;
    uint32_t val; // below 10^8
};

// All blocks of eight but the first digits. Out of line, since most numbers have none.
[[gnu::noinline]] static REMAINDER put_blocks(char* end, uintmax_t val)
{
    for (; val >= 100000000; val /= 100000000)
        end = put_eight(end, static_cast<uint32_t>(val % 100000000));
    return {end, static_cast<uint32_t>(val)};
}

static inline void convert_decimal(char* end, uintmax_t val)
{
    const char* const pairs = DECIMAL_PAIRS.data();
    REMAINDER rest{end, static_cast<uint32_t>(val)};
    if (val >= 100000000)
        rest = put_blocks(end, val);
    for (; rest.val >= 100; rest.val /= 100)
        rest.end = put_pair(rest.end, pairs, rest.val % 100);
    if (rest.val >= 10)
        put_pair(rest.end, pairs, rest.val);
    else
        rest.end[-1] = static_cast<char>('0' + rest.val);
}

static void convert_hexadecimal(char* end, uintmax_t val, const char* pairs)
{
    for (; val >= 0x100; val >>= 8)
        end = put_pair(end, pairs, val & 0xFF);
    if (val >= 0x10)
        put_pair(end, pairs, val);
    else
        end[-1] = pairs[val * 2 + 1];
}

static void convert_octal(char* end, uintmax_t val)
{
    do
        *--end = static_cast<char>('0' + (val & 7));
    while ((val >>= 3) != 0);
}

void convert(char* end, uintmax_t val, uint32_t base, bool upper)
{
    if (base == 10)
        convert_decimal(end, val);
    else if (base == 16)
        convert_hexadecimal(end, val, upper ? UPPER_PAIRS.data() : LOWER_PAIRS.data());
    else
        convert_octal(end, val);
}

void convert_fraction(char* end, uintmax_t val, size_t len)
{
    const char* const start = end - len;
    for (; end - start >= 8; val /= 100000000)
        end = put_eight(end, static_cast<uint32_t>(val % 100000000));
    auto rest = static_cast<uint32_t>(val);
    for (; end - start >= 2; rest /= 100)
        end = put_pair(end, DECIMAL_PAIRS.data(), rest % 100);
    if (end != start)
        end[-1] = static_cast<char>('0' + rest);
}

char* put_decimal(char* start, uintmax_t val)
{
    char* const end = start + count_digits(val, 10);
    convert_decimal(end, val);
    return end;
}

char* put_hexadecimal(char* start, uintmax_t val)
{
    char* const end = start + count_digits(val, 16);
    convert_hexadecimal(end, val, LOWER_PAIRS.data());
    return end;
}

// ---- Locale ----

const lconv& setup_locale(FORMAT_CTX& fctx)
{
    if (fctx.lc == nullptr)
        fctx.lc = localeconv(); // NOLINT(concurrency-mt-unsafe): callers keep the locale still
    return *fctx.lc;
}

const char* get_thousands_sep(FORMAT_CTX& fctx)
{
    const char* const sep = setup_locale(fctx).thousands_sep;
    return sep != nullptr ? sep : ",";
}

size_t getnumsep(FORMAT_CTX& fctx, size_t len)
{
    return ((len + 2) / 3 - 1) * strlen(get_thousands_sep(fctx));
}
