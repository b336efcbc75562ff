// Floating-point conversions of the formatting engine.
//
// A value is split into an integer part and a fraction scaled by 10^precision and rounded half up,
// both 64-bit integers; an exponent style first divides the value by its power of ten. All of it is
// done with 64-bit mantissas and rounding to nearest, as `long double` has them, and the result
// stands and falls with those roundings: a power of ten is what multiplying or dividing 1 by 10
// again and again gives, rounding errors included, and each value meets exactly one division, one
// subtraction (exact) and one multiplication. Reordering any of them changes last digits.
//
// The arithmetic is written out over integers because a mantissa's way between the floating unit
// and the integer registers costs more than the arithmetic itself. The outcome is bit for bit that
// of the unit for every magnitude that needs no power of ten below about 1e-4931. Such powers are
// subnormal in the unit and lose digits there; here they keep all 64 bits, so that the smallest
// `long double` values come out more exact. A rounding mode that a caller has set changes nothing.
// The powers that a `double` can need are a table, so the work per value is constant; beyond, for
// `long double` only, the repetition goes on.
#include "psp_internal.h"

static constexpr size_t DEFAULT_PRECISION = 6;
static constexpr size_t MAX_PRECISION = 19; // 10^19 is the highest power below 2^64

__extension__ typedef unsigned __int128 uint128_t;

// ---- Extended arithmetic ----

// A magnitude: mantissa * 2^(exponent - 63), with the mantissa's top bit set; or zero, with no bit
// set and an exponent below all others.
struct EXTENDED {
    uint64_t mantissa;
    int32_t exponent;
};

static constexpr uint64_t TOP_BIT = uint64_t{1} << 63;
static constexpr EXTENDED ZERO{0, INT32_MIN / 2};
static constexpr EXTENDED ONE{TOP_BIT, 0};
static constexpr EXTENDED TEN{uint64_t{10} << 60, 3};

static constexpr bool is_less(EXTENDED a, EXTENDED b)
{
    return a.exponent != b.exponent ? a.exponent < b.exponent : a.mantissa < b.mantissa;
}

// The magnitude of an integer times 2^exponent.
static constexpr EXTENDED normalize(uint64_t val, int32_t exponent)
{
    if (val == 0)
        return ZERO;
    const int shift = std::countl_zero(val);
    return {val << shift, exponent + 63 - shift};
}

// Adds one to the mantissa if asked to.
static constexpr EXTENDED round_up(EXTENDED a, bool up)
{
    a.mantissa += up;
    if (up && a.mantissa == 0)
        return {TOP_BIT, a.exponent + 1};
    return a;
}

static constexpr EXTENDED multiply(EXTENDED a, EXTENDED b)
{
    const auto product = static_cast<uint128_t>(a.mantissa) * b.mantissa;
    const bool carry = static_cast<uint64_t>(product >> 64) >= TOP_BIT;
    const uint128_t scaled = carry ? product : product << 1;
    const auto mantissa = static_cast<uint64_t>(scaled >> 64);
    const auto rest = static_cast<uint64_t>(scaled);
    const bool up = rest > TOP_BIT || (rest == TOP_BIT && (mantissa & 1));
    return round_up({mantissa, a.exponent + b.exponent + carry}, up);
}

// The quotient of high:low by a divisor above `high`; the processor has an instruction for that,
// the language has not.
static constexpr uint64_t divide_wide(uint64_t high, uint64_t low, uint64_t divisor)
{
    // GCOVR_EXCL_START: the compiler's own way
    if (std::is_constant_evaluated())
        return static_cast<uint64_t>((static_cast<uint128_t>(high) << 64 | low) / divisor);
    // GCOVR_EXCL_STOP
    asm("divq %2" : "+a"(low), "+d"(high) : "r"(divisor) : "cc");
    return low;
}

// `b` is not zero.
static constexpr EXTENDED divide(EXTENDED a, EXTENDED b)
{
    const bool borrow = a.mantissa < b.mantissa;
    const uint64_t high = borrow ? a.mantissa : a.mantissa >> 1;
    const uint64_t low = borrow ? 0 : a.mantissa << 63;
    const uint64_t quotient = divide_wide(high, low, b.mantissa);
    const uint64_t rest = low - quotient * b.mantissa;
    // Never a tie: 65 bits of quotient times an odd part of the divisor have no room in `a`.
    const bool up = rest > b.mantissa - rest;
    return round_up({quotient, a.exponent - b.exponent - borrow}, up);
}

// For magnitudes below 2^64, here and below: the integer part,
static uint64_t truncate(EXTENDED a)
{
    return a.exponent < 0 ? 0 : a.mantissa >> (63 - a.exponent);
}

// the rest of it,
static EXTENDED get_fraction(EXTENDED a)
{
    if (a.exponent < 0)
        return a;
    return a.exponent == 63 ? ZERO : normalize(a.mantissa << (a.exponent + 1), -64);
}

// and the nearest integer, halves upwards: the bit behind the point tells.
static uint64_t round_float(EXTENDED a)
{
    if (a.exponent < -1 || a.exponent > 62)
        return truncate(a);
    return truncate(a) + (a.mantissa >> (62 - a.exponent) & 1);
}

// ---- Powers of ten ----

static constexpr int32_t TABLED = 324; // exponent of the smallest double

// 1 multiplied or divided by 10 so many times, from the smallest power to the largest.
static constexpr auto POWERS_OF_10 = [] {
    std::array<EXTENDED, TABLED * 2 + 1> powers{};
    powers[TABLED] = ONE;
    for (size_t i = 1; i <= TABLED; ++i) {
        powers[TABLED + i] = multiply(powers[TABLED + i - 1], TEN);
        powers[TABLED - i] = divide(powers[TABLED - i + 1], TEN);
    }
    return powers;
}();

static constexpr EXTENDED power_in_table(int32_t exponent)
{
    return POWERS_OF_10.data()[TABLED + exponent];
}

static constexpr EXTENDED power_beyond_table(int32_t exponent)
{
    EXTENDED power = power_in_table(exponent < 0 ? -TABLED : TABLED);
    for (; exponent < -TABLED; ++exponent)
        power = divide(power, TEN);
    for (; exponent > TABLED; --exponent)
        power = multiply(power, TEN);
    return power;
}

static constexpr EXTENDED power_of_10(int32_t exponent)
{
    if (exponent < -TABLED || exponent > TABLED)
        return power_beyond_table(exponent);
    return power_in_table(exponent);
}

static int32_t get_exponent_beyond_table(EXTENDED magnitude)
{
    int32_t exponent = 0;
    if (is_less(magnitude, ONE)) {
        for (EXTENDED power = ONE; is_less(magnitude, power); power = divide(power, TEN))
            --exponent;
    } else {
        for (EXTENDED power = TEN; !is_less(magnitude, power); power = multiply(power, TEN))
            ++exponent;
    }
    return exponent;
}

// The decimal exponent of 2^exponent, or one less: 78913 / 2^18 is just below log10(2).
static constexpr int32_t estimate_exponent(int32_t exponent)
{
    return std::max(-TABLED, exponent * 78913 >> 18);
}

static consteval bool estimate_is_never_above()
{
    for (int32_t i = POWERS_OF_10.front().exponent + 1; i <= POWERS_OF_10.back().exponent; ++i)
        if (is_less(normalize(1, i), power_in_table(estimate_exponent(i))))
            return false;
    return true;
}
static_assert(estimate_is_never_above());

// The exponent e with 10^e <= magnitude < 10^(e + 1), by the powers above.
static int32_t get_exponent(EXTENDED magnitude)
{
    if (magnitude.mantissa == 0)
        return 0;
    if (is_less(magnitude, POWERS_OF_10.front()) || !is_less(magnitude, POWERS_OF_10.back()))
        return get_exponent_beyond_table(magnitude);
    const int32_t exponent = estimate_exponent(magnitude.exponent);
    return exponent + !is_less(magnitude, power_in_table(exponent + 1));
}

// ---- The argument ----

struct ARGUMENT {
    bool negative; // sign bit
    bool infinite;
    bool nan;
    EXTENDED magnitude; // when neither of these
};

static ARGUMENT get_double(double value)
{
    const auto bits = std::bit_cast<uint64_t>(value);
    const auto biased = static_cast<int32_t>(bits >> 52 & 0x7FF);
    const uint64_t fraction = bits & 0xFFFFFFFFFFFFF;
    ARGUMENT arg{
        bits >> 63 != 0, biased == 0x7FF && fraction == 0, biased == 0x7FF && fraction != 0, {}};
    if (biased == 0)
        arg.magnitude = normalize(fraction, -1074);
    else
        arg.magnitude = {fraction << 11 | TOP_BIT, biased - 1023};
    return arg;
}

// Mantissas without the top bit that are not subnormal are no numbers to the processor either.
static ARGUMENT get_long_double(long double value)
{
    uint64_t mantissa;
    uint16_t head;
    memcpy(&mantissa, &value, sizeof mantissa);
    memcpy(&head, reinterpret_cast<const char*>(&value) + sizeof mantissa, sizeof head);
    const int32_t biased = head & 0x7FFF;
    const bool infinite = biased == 0x7FFF && mantissa == TOP_BIT;
    const bool nan = !infinite && (biased == 0x7FFF || (biased != 0 && mantissa < TOP_BIT));
    const int32_t exponent = std::max(biased, 1) - 16383 - 63;
    return {(head & 0x8000) != 0, infinite, nan, normalize(mantissa, exponent)};
}

static ARGUMENT get_float(ZYN_PRINTF_CTX& pctx)
{
    // The list was started by the engine, where the analyzer does not see it from here.
    if (pctx.fctx.conv == C_LDOUBLE)
        return get_long_double(va_arg(pctx.args, long double)); // NOLINT(clang-analyzer-valist*)
    return get_double(va_arg(pctx.args, double));               // NOLINT(clang-analyzer-valist*)
}

// ---- Layout ----

// Negative zero and NaN are not below zero.
static char calc_float_sign(const FORMAT_CTX& fctx, const ARGUMENT& arg)
{
    if (arg.negative && !arg.nan && arg.magnitude.mantissa != 0)
        return '-';
    if (fctx.flags & FLAG_PLUS)
        return '+';
    return fctx.flags & FLAG_SPACE ? ' ' : '\0';
}

// The fraction of a magnitude below 2^64, times 10^precision and rounded: to 64 bits, and then to
// an integer. Where the fraction fits into 64 bits behind the point, as most do, its whole product
// tells how that ends. The first rounding lifts to the half what is less than half of a last bit
// below, or just as much, since the bit before a half is odd - if there is one, and no 18 digits
// are so long that there is none.
static uint64_t scale_fraction(EXTENDED a, size_t precision)
{
    const int32_t zeros = -1 - a.exponent; // bits between the point and the mantissa
    if (zeros > std::countr_zero(a.mantissa) || precision == MAX_PRECISION)
        return round_float(multiply(get_fraction(a), normalize(DECIMAL_POWERS[precision], 0)));
    const uint64_t fraction = zeros < 0 ? a.mantissa << a.exponent << 1 : a.mantissa >> zeros;
    const auto product = static_cast<uint128_t>(fraction) * DECIMAL_POWERS[precision];
    const auto whole = static_cast<uint64_t>(product >> 64);
    const uint64_t half_bit = std::bit_floor(whole); // of the 64 that stay, in units of 2^-64
    return whole + (static_cast<uint64_t>(product) >= TOP_BIT - half_bit);
}

static ZYN_RETCODE calc_float_parts(FORMAT_CTX& fctx, FLT_FORMAT& layout, EXTENDED value)
{
    if (layout.estyle)
        value = divide(value, power_of_10(layout.exponent));
    layout.intpart = value.exponent < 64 ? truncate(value) : UINTMAX_MAX;
    if (layout.intpart == UINTMAX_MAX)
        return eRANGE;
    fctx.precision = std::min(fctx.precision, MAX_PRECISION);
    layout.fracpart = scale_fraction(value, fctx.precision);
    if (layout.fracpart >= DECIMAL_POWERS[fctx.precision]) {
        layout.fracpart = 0;
        ++layout.intpart;
        if (layout.estyle && layout.intpart == 10) {
            layout.intpart = 1;
            ++layout.exponent;
        }
    }
    return sOKAY;
}

// Whether a value is so far below the next power of ten that no rounding of its digits gets there.
static bool stays_below(EXTENDED value, EXTENDED power)
{
    if (value.mantissa == 0)
        return true;
    const int32_t shift = power.exponent - value.exponent;
    return value.mantissa >> shift < power.mantissa - power.mantissa / 8;
}

// The general style: fixed notation where the exponent, once the digits are rounded, allows it.
static ZYN_RETCODE calc_general_style(FORMAT_CTX& fctx, FLT_FORMAT& layout, EXTENDED value)
{
    fctx.precision = std::min(fctx.precision - 1, MAX_PRECISION); // digits behind the first
    layout.omitzeros = !(fctx.flags & FLAG_ALT);
    const auto precision = static_cast<int32_t>(fctx.precision);
    const auto is_fixed = [&] { return layout.exponent >= -4 && layout.exponent <= precision; };
    if (!is_fixed() || !stays_below(value, power_in_table(layout.exponent + 1))) {
        const ZYN_RETCODE rc = calc_float_parts(fctx, layout, value);
        if (rc != sOKAY || !is_fixed())
            return rc;
    }
    layout.estyle = 0;
    fctx.precision = static_cast<size_t>(precision - layout.exponent);
    return calc_float_parts(fctx, layout, value);
}

// Splits the value in the style of the directive.
static ZYN_RETCODE calc_style(FORMAT_CTX& fctx, FLT_FORMAT& layout, EXTENDED value)
{
    layout.estyle = (fctx.flags & (FLAG_EXPONENT | FLAG_GENERAL)) != 0;
    layout.omitzeros = 0;
    if (layout.estyle)
        layout.exponent = get_exponent(value);
    if (fctx.flags & FLAG_GENERAL)
        return calc_general_style(fctx, layout, value);
    return calc_float_parts(fctx, layout, value);
}

// Letter, sign and two digits; a third one from 100 on, and never more than the lowest three.
static void convert_exponent(const FORMAT_CTX& fctx, FLT_FORMAT& layout)
{
    const int32_t magnitude = layout.exponent < 0 ? -layout.exponent : layout.exponent;
    char* pos = layout.econvert;
    const auto put = [&pos](int ch) { *pos++ = static_cast<char>(ch); };
    put(fctx.flags & FLAG_UPPER ? 'E' : 'e');
    put(layout.exponent < 0 ? '-' : '+');
    if (magnitude >= 100)
        put('0' + magnitude / 100 % 10);
    put('0' + magnitude / 10 % 10);
    put('0' + magnitude % 10);
    layout.elen = static_cast<size_t>(pos - layout.econvert);
}

// Takes the trailing zeros off the fraction, or all of it when it is 0.
static void omit_zeros(FORMAT_CTX& fctx, FLT_FORMAT& layout)
{
    if (layout.fracpart == 0)
        fctx.precision = 0;
    else
        for (; layout.fracpart % 10 == 0; layout.fracpart /= 10)
            --fctx.precision;
}

static void calc_digits(FORMAT_CTX& fctx, FLT_FORMAT& layout)
{
    layout.elen = 0;
    if (layout.estyle)
        convert_exponent(fctx, layout);
    layout.ilen = count_digits(layout.intpart, 10);
    if (layout.omitzeros)
        omit_zeros(fctx, layout);
}

// The locale's decimal point; it is a single byte nearly everywhere.
static void getnumdec(FORMAT_CTX& fctx, FLT_FORMAT& layout)
{
    layout.point = "";
    layout.emitpoint = 0;
    if (fctx.precision == 0 && !(fctx.flags & FLAG_ALT))
        return;
    const char* const point = setup_locale(fctx).decimal_point;
    layout.point = point != nullptr ? point : ".";
    const bool single = layout.point[0] != '\0' && layout.point[1] == '\0';
    layout.emitpoint = single ? 1 : strlen(layout.point);
}

static void calc_padding(const FORMAT_CTX& fctx, FLT_FORMAT& layout, size_t total)
{
    const size_t missing = total < fctx.width ? fctx.width - total : 0;
    const bool left = fctx.flags & FLAG_LEFT;
    layout.lpadlen = left ? 0 : missing;
    layout.rpadlen = left ? missing : 0;
}

// Returns the size of the field.
static size_t calc_float_format(FORMAT_CTX& fctx, FLT_FORMAT& layout)
{
    calc_digits(fctx, layout);
    getnumdec(fctx, layout);
    layout.separators = fctx.flags & FLAG_GROUP ? getnumsep(fctx, layout.ilen) : 0;
    const size_t total = layout.elen + layout.ilen + fctx.precision + layout.emitpoint +
                         (layout.sign != 0) + layout.separators;
    calc_padding(fctx, layout, total);
    return std::max(total, fctx.width);
}

// ---- Output ----

template <class Sink>
static ZYN_RETCODE output_padded_sign(Sink& sink, const FORMAT_CTX& fctx, const FLT_FORMAT& layout)
{
    const bool zeros = (fctx.flags & FLAG_ZERO) && layout.lpadlen != 0;
    ZYN_RETCODE rc = sOKAY;
    if (!zeros)
        rc = sink.emitn(' ', layout.lpadlen);
    if (rc == sOKAY && layout.sign != 0)
        rc = sink.emit(layout.sign);
    if (rc == sOKAY && zeros)
        rc = sink.emitn('0', layout.lpadlen);
    return rc;
}

template <class Sink>
static ZYN_RETCODE output_intpart(Sink& sink, FORMAT_CTX& fctx, FLT_FORMAT& layout)
{
    if (fctx.flags & FLAG_GROUP)
        return print_groups(sink, fctx, layout.intpart, layout.ilen, layout.tmp);
    return print_digits(sink, fctx, layout.intpart, layout.ilen, layout.tmp);
}

template <class Sink>
static ZYN_RETCODE output_fraction(Sink& sink, const FORMAT_CTX& fctx, FLT_FORMAT& layout)
{
    char* const room = sink.claim(fctx.precision);
    char* const start = room != nullptr ? room : layout.tmp;
    convert_fraction(start + fctx.precision, layout.fracpart, fctx.precision);
    return room != nullptr ? sOKAY : sink.emitstr(start, fctx.precision);
}

template <class Sink>
static ZYN_RETCODE output_float(Sink& sink, FORMAT_CTX& fctx, FLT_FORMAT& layout)
{
    ZYN_RETCODE rc = output_padded_sign(sink, fctx, layout);
    if (rc == sOKAY)
        rc = output_intpart(sink, fctx, layout);
    if (rc == sOKAY)
        rc = sink.emitstr(layout.point, layout.emitpoint);
    if (rc == sOKAY)
        rc = output_fraction(sink, fctx, layout);
    if (rc == sOKAY)
        rc = sink.emitstr(layout.econvert, layout.elen);
    if (rc == sOKAY)
        rc = sink.emitn(' ', layout.rpadlen);
    return rc;
}

// ---- NaN and infinity ----

static const char* get_nan_str(const FORMAT_CTX& fctx)
{
    return fctx.flags & FLAG_UPPER ? "NAN" : "nan";
}

static const char* get_inf_str(const FORMAT_CTX& fctx)
{
    return fctx.flags & FLAG_UPPER ? "INF" : "inf";
}

// The word for a value that is no number, NULL for one that is.
static const char* check_nan_and_inf(const FORMAT_CTX& fctx, const ARGUMENT& arg)
{
    if (arg.nan)
        return get_nan_str(fctx);
    return arg.infinite ? get_inf_str(fctx) : nullptr;
}

template <class Sink>
static ZYN_RETCODE output_word(Sink& sink, FORMAT_CTX& fctx, FLT_FORMAT& layout, const char* word)
{
    constexpr size_t WORD_LEN = 3;
    fctx.flags = static_cast<uint16_t>(fctx.flags & ~FLAG_ZERO);
    calc_padding(fctx, layout, WORD_LEN + (layout.sign != 0));
    ZYN_RETCODE rc = output_padded_sign(sink, fctx, layout);
    if (rc == sOKAY)
        rc = sink.emitstr(word, WORD_LEN);
    if (rc == sOKAY)
        rc = sink.emitn(' ', layout.rpadlen);
    return rc;
}

// ---- The conversion ----

// Takes the argument and splits it; `word` becomes what stands for a value that is no number.
static ZYN_RETCODE format_float(ZYN_PRINTF_CTX& pctx, FLT_FORMAT& layout, const char*& word)
{
    FORMAT_CTX& fctx = pctx.fctx;
    const ARGUMENT arg = get_float(pctx);
    layout.sign = calc_float_sign(fctx, arg);
    word = check_nan_and_inf(fctx, arg);
    if (word != nullptr)
        return sOKAY;
    if (fctx.precision == NOT_GIVEN)
        fctx.precision = DEFAULT_PRECISION;
    else if (fctx.precision == 0 && (fctx.flags & FLAG_GENERAL))
        fctx.precision = 1;
    return calc_style(fctx, layout, arg.magnitude);
}

template <class Sink>
ZYN_RETCODE handle_float(Sink& sink, ZYN_PRINTF_CTX& pctx)
{
    FLT_FORMAT layout;
    const char* word;
    const ZYN_RETCODE rc = format_float(pctx, layout, word);
    if (rc != sOKAY)
        return rc;
    if (word != nullptr)
        return output_word(sink, pctx.fctx, layout, word);
    char* const room = sink.claim(calc_float_format(pctx.fctx, layout));
    if (room == nullptr)
        return output_float(sink, pctx.fctx, layout);
    ROOM_SINK whole{room};
    return output_float(whole, pctx.fctx, layout);
}

template ZYN_RETCODE handle_float(CALLBACK_SINK& sink, ZYN_PRINTF_CTX& pctx);
template ZYN_RETCODE handle_float(BUFFER_SINK& sink, ZYN_PRINTF_CTX& pctx);
