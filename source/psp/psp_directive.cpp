// What stands between a '%' and its conversion character: flags, width, precision and modifier. An
// asterisk takes its argument at once, so that the arguments are used up from left to right.
#include "psp_internal.h"

// clang-format off
static constexpr std::pair<char, uint16_t> FLAGS[] = {
    {'-',  FLAG_LEFT},
    {'+',  FLAG_PLUS},
    {' ',  FLAG_SPACE},
    {'#',  FLAG_ALT},
    {'0',  FLAG_ZERO},
    {'\'', FLAG_GROUP},
};
// clang-format on

// The same, by the distance from the lowest one.
static constexpr auto FLAGS_BY_CHAR = [] {
    std::array<uint16_t, '0' - ' ' + 1> by_char{};
    for (const auto& [ch, flag] : FLAGS)
        by_char[static_cast<size_t>(ch - ' ')] = flag;
    return by_char;
}();

static inline uint16_t flag_of(char ch)
{
    const auto i = static_cast<size_t>(static_cast<unsigned char>(ch)) - ' ';
    return i < FLAGS_BY_CHAR.size() ? FLAGS_BY_CHAR[i] : uint16_t{0};
}

static inline void parse_flags(FORMAT_CTX& fctx)
{
    while (const uint16_t flag = flag_of(*fctx.fmt)) {
        fctx.flags = static_cast<uint16_t>(fctx.flags | flag);
        ++fctx.fmt;
    }
}

// Reads the digits that stand here, 0 if there are none; eRANGE when they pass INT32_MAX.
static inline ZYN_RETCODE parse_number(FORMAT_CTX& fctx, size_t& number)
{
    const char* pos = fctx.fmt;
    size_t sum = 0;
    for (uint32_t digit; (digit = static_cast<uint32_t>(*pos - '0')) < 10; ++pos) {
        sum = sum * 10 + digit;
        if (sum > INT32_MAX)
            return eRANGE;
    }
    fctx.fmt = pos;
    number = sum;
    return sOKAY;
}

static ZYN_RETCODE parse_width(ZYN_PRINTF_CTX& pctx)
{
    FORMAT_CTX& fctx = pctx.fctx;
    if (*fctx.fmt != '*')
        return parse_number(fctx, fctx.width);
    ++fctx.fmt;
    const int width = va_arg(pctx.args, int);
    fctx.width = static_cast<uint32_t>(width);
    if (width < 0) {
        fctx.width = 0u - static_cast<uint32_t>(width);
        fctx.flags = static_cast<uint16_t>(fctx.flags | FLAG_LEFT);
    }
    return sOKAY;
}

static ZYN_RETCODE parse_precision(ZYN_PRINTF_CTX& pctx)
{
    FORMAT_CTX& fctx = pctx.fctx;
    if (*fctx.fmt != '.')
        return sOKAY;
    ++fctx.fmt;
    fctx.precision = 0;
    if (*fctx.fmt != '*')
        return parse_number(fctx, fctx.precision);
    ++fctx.fmt;
    const int precision = va_arg(pctx.args, int);
    fctx.precision = precision < 0 ? NOT_GIVEN : static_cast<size_t>(precision);
    return sOKAY;
}

static void parse_modifier(FORMAT_CTX& fctx)
{
    const auto take = [&fctx](CONV once, CONV twice) {
        const bool doubled = once != twice && fctx.fmt[1] == fctx.fmt[0];
        fctx.conv = doubled ? twice : once;
        fctx.fmt += doubled ? 2 : 1;
    };
    switch (*fctx.fmt) {
    case 'h':
        return take(C_SHORT, C_CHAR);
    case 'l':
        return take(C_LONG, C_LLONG);
    case 'L':
        return take(C_LDOUBLE, C_LDOUBLE);
    case 'j':
        return take(C_INTMAX, C_INTMAX);
    case 'z':
        return take(C_SIZE, C_SIZE);
    case 't':
        return take(C_PTRDIFF, C_PTRDIFF);
    default:
        return;
    }
}

ZYN_RETCODE parse_directive(ZYN_PRINTF_CTX& pctx)
{
    parse_flags(pctx.fctx);
    ZYN_RETCODE rc = parse_width(pctx);
    if (rc == sOKAY)
        rc = parse_precision(pctx);
    if (rc == sOKAY)
        parse_modifier(pctx.fctx);
    return rc;
}
