// The formatting engine: walks a format, copies what is between the directives and hands each
// directive to its conversion. Integers, strings, characters and pointers are here, floating values
// in psp_float.cpp, the digits of both in psp_digits.cpp, the grammar in psp_directive.cpp.
//
// One pass over the format, one over each argument. A directive is parsed into a FORMAT_CTX, laid
// out (all lengths first), then emitted from left to right; the barest ones, which most are, go
// into a buffer without any of that. Everything lives on the stack; the locale is asked only when a
// directive groups digits. Nothing is ever read behind the format's NUL nor behind a string
// argument's precision.
#include "psp_internal.h"

#include "psp/format.h"

#include <array>
#include <utility>

// ---- Integers ----

static void calc_int_sign(const FORMAT_CTX& fctx, intmax_t val, INT_FORMAT& layout)
{
    layout.uval = static_cast<uintmax_t>(val);
    layout.sign = 0;
    if (fctx.flags & FLAG_UNSIGNED)
        return;
    if (val < 0) {
        layout.uval = 0 - layout.uval; // right for the most negative value as well
        layout.sign = '-';
    } else if (fctx.flags & FLAG_PLUS) {
        layout.sign = '+';
    } else if (fctx.flags & FLAG_SPACE) {
        layout.sign = ' ';
    }
}

// Zero has no prefix. In octal the prefix stands for one of the precision's digits; a precision of
// 0 wraps to NOT_GIVEN by that.
static void calc_int_prefix(FORMAT_CTX& fctx, INT_FORMAT& layout)
{
    if (!(fctx.flags & (FLAG_ALT | FLAG_POINTER)) || layout.uval == 0)
        return;
    if (fctx.base == 16) {
        layout.prefix = fctx.flags & FLAG_UPPER ? "0X" : "0x";
    } else if (fctx.base == 8) {
        layout.prefix = "0";
        if (fctx.precision != NOT_GIVEN)
            --fctx.precision;
    }
}

static inline void calc_int_padding(const FORMAT_CTX& fctx, size_t total, INT_FORMAT& layout)
{
    if (total >= fctx.width)
        return;
    const size_t missing = fctx.width - total;
    if (fctx.flags & FLAG_LEFT)
        layout.rspadlen = missing;
    else if ((fctx.flags & FLAG_ZERO) && fctx.precision == NOT_GIVEN)
        layout.zpadlen = missing;
    else
        layout.lspadlen = missing;
}

// Prefix, precision and separators: what a directive seldom asks for. Returns the number of bytes
// that they and the digits come to. Separators count twice where a precision exceeds the digits:
// once within the precision and once beside it.
static size_t calc_int_body(FORMAT_CTX& fctx, INT_FORMAT& layout)
{
    calc_int_prefix(fctx, layout);
    if (fctx.precision == 0 && layout.uval == 0)
        layout.len = 0;
    if (fctx.flags & FLAG_GROUP)
        layout.separators = getnumsep(fctx, layout.len);
    size_t body = layout.len;
    if (fctx.precision != NOT_GIVEN) {
        const size_t used = layout.len + layout.separators;
        layout.zpadlen = fctx.precision > used ? fctx.precision - used : 0;
        body = std::max(body, fctx.precision);
    }
    const size_t prefix_len = layout.prefix != nullptr ? strlen(layout.prefix) : 0;
    return layout.separators + body + prefix_len;
}

// Lays out a sign and `len` digits; returns the size of the field.
static inline size_t calc_int_format(FORMAT_CTX& fctx, INT_FORMAT& layout)
{
    layout.prefix = nullptr;
    layout.lspadlen = layout.rspadlen = layout.zpadlen = layout.separators = 0;
    size_t total = layout.len;
    if ((fctx.flags & (FLAG_ALT | FLAG_POINTER | FLAG_GROUP)) || fctx.precision != NOT_GIVEN)
        total = calc_int_body(fctx, layout);
    total += layout.sign != 0;
    calc_int_padding(fctx, total, layout);
    return std::max(total, fctx.width);
}

template <class Sink>
static ZYN_RETCODE output_digits(Sink& sink, FORMAT_CTX& fctx, INT_FORMAT& layout)
{
    if (layout.len == 0)
        return sOKAY;
    if (fctx.flags & FLAG_GROUP)
        return print_groups(sink, fctx, layout.uval, layout.len, layout.tmp);
    return print_digits(sink, fctx, layout.uval, layout.len, layout.tmp);
}

template <class Sink>
static ZYN_RETCODE output_int(Sink& sink, FORMAT_CTX& fctx, INT_FORMAT& layout)
{
    ZYN_RETCODE rc = sink.emitn(' ', layout.lspadlen);
    if (rc == sOKAY && layout.sign != 0)
        rc = sink.emit(layout.sign);
    if (rc == sOKAY && layout.prefix != nullptr)
        rc = sink.emitstr(layout.prefix, strlen(layout.prefix));
    if (rc == sOKAY)
        rc = sink.emitn('0', layout.zpadlen);
    if (rc == sOKAY)
        rc = output_digits(sink, fctx, layout);
    if (rc == sOKAY)
        rc = sink.emitn(' ', layout.rspadlen);
    return rc;
}

// Whether a directive asks for nothing but a sign, digits and padding.
static inline bool is_simple(const FORMAT_CTX& fctx)
{
    return !(fctx.flags & (FLAG_ALT | FLAG_POINTER | FLAG_GROUP)) && fctx.precision == NOT_GIVEN;
}

// What such a directive comes to; false when the output has no room for all of it.
template <class Sink>
static inline bool format_simple_int(Sink& sink, const FORMAT_CTX& fctx, intmax_t val)
{
    INT_FORMAT layout;
    calc_int_sign(fctx, val, layout);
    const size_t len = count_digits(layout.uval, fctx.base);
    const size_t total = len + (layout.sign != 0);
    const size_t missing = total < fctx.width ? fctx.width - total : 0;
    char* pos = sink.claim(total + missing);
    if (pos == nullptr)
        return false;
    const auto pad = [&pos, missing](char ch) {
        fill_run(pos, ch, missing);
        pos += missing;
    };
    const uint16_t place = fctx.flags & (FLAG_LEFT | FLAG_ZERO);
    if (place == 0)
        pad(' ');
    if (layout.sign != 0)
        *pos++ = layout.sign;
    if (place == FLAG_ZERO)
        pad('0');
    pos += len;
    convert(pos, layout.uval, fctx.base, fctx.flags & FLAG_UPPER);
    if (place & FLAG_LEFT)
        pad(' ');
    return true;
}

template <class Sink>
static ZYN_RETCODE format_int(Sink& sink, FORMAT_CTX& fctx, intmax_t val)
{
    INT_FORMAT layout;
    calc_int_sign(fctx, val, layout);
    layout.len = count_digits(layout.uval, fctx.base);
    const size_t size = calc_int_format(fctx, layout);
    char* const room = fctx.flags & FLAG_GROUP ? nullptr : sink.claim(size);
    if (room == nullptr)
        return output_int(sink, fctx, layout);
    ROOM_SINK whole{room};
    return output_int(whole, fctx, layout);
}

static inline intmax_t get_int(ZYN_PRINTF_CTX& pctx)
{
    const bool is_unsigned = pctx.fctx.flags & FLAG_UNSIGNED;
    if (pctx.fctx.conv == C_DEFAULT) {
        const int val = va_arg(pctx.args, int);
        return is_unsigned ? static_cast<unsigned int>(val) : static_cast<intmax_t>(val);
    }
    switch (pctx.fctx.conv) {
    case C_CHAR: {
        const int val = va_arg(pctx.args, int);
        return is_unsigned ? static_cast<uint8_t>(val) : static_cast<int8_t>(val);
    }
    case C_SHORT: {
        const int val = va_arg(pctx.args, int);
        return is_unsigned ? static_cast<uint16_t>(val) : static_cast<int16_t>(val);
    }
    case C_LDOUBLE: // no integer has this size: 0, and the argument is left to the next directive
        return 0;
    default:
        return va_arg(pctx.args, intmax_t);
    }
}

template <class Sink>
static ZYN_RETCODE handle_integer(Sink& sink, ZYN_PRINTF_CTX& pctx)
{
    const intmax_t val = get_int(pctx);
    if (is_simple(pctx.fctx) && format_simple_int(sink, pctx.fctx, val))
        return sOKAY;
    return format_int(sink, pctx.fctx, val);
}

// ---- Strings, pointers, counts ----

// Zeros never pad a string.
template <class Sink>
static ZYN_RETCODE output_padded_str(Sink& sink, const FORMAT_CTX& fctx, const char* str,
                                     size_t len)
{
    const size_t missing = fctx.width - len;
    const bool left = fctx.flags & FLAG_LEFT;
    ZYN_RETCODE rc = sink.emitn(' ', left ? 0 : missing);
    if (rc == sOKAY)
        rc = sink.emitstr(str, len);
    if (rc == sOKAY)
        rc = sink.emitn(' ', left ? missing : 0);
    return rc;
}

template <class Sink>
static inline ZYN_RETCODE output_str(Sink& sink, const FORMAT_CTX& fctx, const char* str,
                                     size_t len)
{
    if (len < fctx.width)
        return output_padded_str(sink, fctx, str, len);
    return sink.emitstr(str, len);
}

template <class Sink>
static inline ZYN_RETCODE format_str(Sink& sink, const FORMAT_CTX& fctx, const char* str)
{
    if (str == nullptr)
        str = fctx.precision < 6 ? "" : "(null)";
    const size_t len = fctx.precision == NOT_GIVEN ? strlen(str) : strnlen(str, fctx.precision);
    return output_str(sink, fctx, str, len);
}

template <class Sink>
static ZYN_RETCODE handle_pointer(Sink& sink, ZYN_PRINTF_CTX& pctx)
{
    const void* const ptr = va_arg(pctx.args, const void*);
    if (ptr != nullptr)
        return format_int(sink, pctx.fctx, reinterpret_cast<intptr_t>(ptr));
    constexpr char NIL[] = "(nil)";
    constexpr size_t whole = sizeof NIL - 1;
    const size_t len = pctx.fctx.precision < whole ? pctx.fctx.precision : whole;
    return output_str(sink, pctx.fctx, NIL, len);
}

template <class T>
static void store_num(ZYN_PRINTF_CTX& pctx, T num)
{
    *va_arg(pctx.args, T*) = num;
}

// The count is a 32-bit number whatever it is stored into.
static void handle_n(ZYN_PRINTF_CTX& pctx, size_t emitted)
{
    const auto num = static_cast<int32_t>(static_cast<uint32_t>(emitted));
    switch (pctx.fctx.conv) {
    case C_DEFAULT:
        return store_num<int>(pctx, num);
    case C_CHAR:
        return store_num<int8_t>(pctx, static_cast<int8_t>(num));
    case C_SHORT:
        return store_num<int16_t>(pctx, static_cast<int16_t>(num));
    case C_SIZE:
        return store_num<size_t>(pctx, static_cast<uint32_t>(num));
    case C_LDOUBLE:
        return;
    default:
        return store_num<int64_t>(pctx, num);
    }
}

// ---- Directives ----

// What a conversion character leads to.
enum HANDLER : uint8_t { H_NONE, H_INTEGER, H_FLOAT, H_CHAR, H_STRING, H_POINTER, H_N, H_PERCENT };

struct CONVERSION {
    HANDLER handler;
    uint8_t base;
    uint16_t flags; // bits that the character sets
};

// clang-format off
static constexpr std::pair<char, CONVERSION> CONVERSIONS[] = {
    {'d', {H_INTEGER, 10, 0}},
    {'i', {H_INTEGER, 10, 0}},
    {'u', {H_INTEGER, 10, FLAG_UNSIGNED}},
    {'o', {H_INTEGER,  8, FLAG_UNSIGNED}},
    {'x', {H_INTEGER, 16, FLAG_UNSIGNED}},
    {'X', {H_INTEGER, 16, FLAG_UNSIGNED | FLAG_UPPER}},
    {'f', {H_FLOAT,   10, 0}},
    {'F', {H_FLOAT,   10, FLAG_UPPER}},
    {'a', {H_FLOAT,   10, 0}},
    {'A', {H_FLOAT,   10, FLAG_UPPER}},
    {'e', {H_FLOAT,   10, FLAG_EXPONENT}},
    {'E', {H_FLOAT,   10, FLAG_EXPONENT | FLAG_UPPER}},
    {'g', {H_FLOAT,   10, FLAG_GENERAL}},
    {'G', {H_FLOAT,   10, FLAG_GENERAL | FLAG_UPPER}},
    {'c', {H_CHAR,    10, 0}},
    {'s', {H_STRING,  10, 0}},
    {'p', {H_POINTER, 16, FLAG_UNSIGNED | FLAG_POINTER}},
    {'n', {H_N,       10, 0}},
    {'%', {H_PERCENT, 10, 0}},
};
// clang-format on

// The same, by character.
static constexpr auto CONVERSIONS_BY_TYPE = [] {
    std::array<CONVERSION, 256> by_type{};
    for (const auto& [type, conversion] : CONVERSIONS)
        by_type[static_cast<unsigned char>(type)] = conversion;
    return by_type;
}();

static inline const CONVERSION* parse_type(const FORMAT_CTX& fctx)
{
    return &CONVERSIONS_BY_TYPE[static_cast<unsigned char>(*fctx.fmt)];
}

template <class Sink>
static ZYN_RETCODE handle_type(Sink& sink, ZYN_PRINTF_CTX& pctx, HANDLER handler)
{
    switch (handler) {
    case H_NONE:
        break;
    case H_INTEGER:
        return handle_integer(sink, pctx);
    case H_FLOAT:
        return handle_float(sink, pctx);
    case H_CHAR:
        return sink.emit(static_cast<char>(va_arg(pctx.args, int)));
    case H_STRING:
        return format_str(sink, pctx.fctx, va_arg(pctx.args, const char*));
    case H_POINTER:
        return handle_pointer(sink, pctx);
    case H_N:
        handle_n(pctx, sink.num());
        break;
    case H_PERCENT:
        return sink.emit('%');
    }
    return sOKAY;
}

// ---- Bare directives ----

static inline void put_int(BUFFER_SINK& sink, intmax_t val)
{
    const auto bits = static_cast<uintmax_t>(val);
    const bool negative = val < 0;
    *sink.pos = '-'; // or the first digit, in a moment
    sink.pos = put_decimal(sink.pos + negative, negative ? 0 - bits : bits);
}

static inline void put_str(BUFFER_SINK& sink, const char* str)
{
    if (str == nullptr)
        str = "(null)";
    sink.emitstr(str, strlen(str));
}

// Most directives are a conversion character alone, at most behind an l or two, and most outputs
// are buffers with room for any number: that takes neither a context nor a layout. False: it is
// another directive, and nothing has happened.
static inline bool format_bare(BUFFER_SINK& sink, ZYN_PRINTF_CTX& pctx)
{
    const char* pos = pctx.fctx.fmt;
    const bool is_long = *pos == 'l';
    if (is_long)
        pos += pos[1] == 'l' ? 2 : 1;
    if (sink.room() < MAX_DIGITS)
        return false;
    va_list& args = pctx.args;
    switch (*pos) {
    case 'd':
        put_int(sink, is_long ? va_arg(args, intmax_t) : va_arg(args, int));
        break;
    case 'u':
        sink.pos =
            put_decimal(sink.pos, is_long ? va_arg(args, uintmax_t) : va_arg(args, unsigned));
        break;
    case 'x':
        sink.pos =
            put_hexadecimal(sink.pos, is_long ? va_arg(args, uintmax_t) : va_arg(args, unsigned));
        break;
    case 'c':
        *sink.pos++ = static_cast<char>(va_arg(args, int));
        break;
    case 's':
        put_str(sink, va_arg(args, const char*));
        break;
    default:
        return false;
    }
    pctx.fctx.fmt = pos + 1;
    return true;
}

// A callback gets its bytes one by one in any case.
static inline bool format_bare(CALLBACK_SINK&, ZYN_PRINTF_CTX&)
{
    return false;
}

// The directive behind the '%' at the position, which moves behind it, but never behind the NUL.
template <class Sink>
static ZYN_RETCODE handle_fmt(Sink& sink, ZYN_PRINTF_CTX& pctx)
{
    FORMAT_CTX& fctx = pctx.fctx;
    fctx = {.flags = 0,
            .conv = C_DEFAULT,
            .base = 0,
            .width = 0,
            .precision = NOT_GIVEN,
            .fmt = fctx.fmt,
            .lc = nullptr};
    const CONVERSION* type = parse_type(fctx);
    if (type->handler == H_NONE) { // perhaps not yet the conversion character
        const ZYN_RETCODE rc = parse_directive(pctx);
        if (rc != sOKAY)
            return rc;
        type = parse_type(fctx);
    }
    fctx.fmt += *fctx.fmt != '\0';
    fctx.base = type->base;
    fctx.flags = static_cast<uint16_t>(fctx.flags | type->flags);
    return handle_type(sink, pctx, type->handler);
}

// ---- The engine ----

// Formats with the arguments that `pctx` holds; its directive is the engine's own.
template <class Sink>
static ZYN_RETCODE format(Sink& sink, const char* fmt, ZYN_PRINTF_CTX& pctx)
{
    const char* pos = fmt;
    while (*pos != '\0') {
        if (*pos != '%') {
            const char* const text = pos;
            pos = strchrnul(text, '%');
            const ZYN_RETCODE rc = sink.emitstr(text, static_cast<size_t>(pos - text));
            if (rc != sOKAY || *pos == '\0')
                return rc;
        }
        pctx.fctx.fmt = pos + 1;
        if (!format_bare(sink, pctx)) {
            const ZYN_RETCODE rc = handle_fmt(sink, pctx);
            if (rc != sOKAY)
                return rc;
        }
        pos = pctx.fctx.fmt;
    }
    return sOKAY;
}

static ZYN_RETCODE format_calling(ZYN_OUTPUT_FCN fcn, ZYN_OUTPUT_CTX ctx, const char* fmt,
                                  ZYN_PRINTF_CTX& pctx)
{
    CALLBACK_SINK sink{fcn, ctx, 0};
    return format(sink, fmt, pctx);
}

static int format_bounded(char* str, size_t size, const char* fmt, ZYN_PRINTF_CTX& pctx)
{
    const bool store = str != nullptr && size != 0;
    const size_t room = store ? std::min(size - 1, size_t{PTRDIFF_MAX}) : 0; // SIZE_MAX: no bound
    BUFFER_SINK sink{str, str, str + room, 0};
    if (format(sink, fmt, pctx) != sOKAY)
        return -1;
    if (store)
        *sink.pos = '\0';
    const size_t length = sink.num();
    return length < INT32_MAX - 1 ? static_cast<int>(length) : -1;
}

// A caller's list is copied. The list of a variadic function is nobody else's and used as it is:
// reading it back right after its making, for a copy, costs more than a short directive.

ZYN_RETCODE psp_vfnprintf(ZYN_OUTPUT_FCN fcn, ZYN_OUTPUT_CTX ctx, const char* fmt, va_list args)
{
    ZYN_PRINTF_CTX pctx;
    va_copy(pctx.args, args);
    const ZYN_RETCODE rc = format_calling(fcn, ctx, fmt, pctx);
    va_end(pctx.args);
    return rc;
}

ZYN_RETCODE psp_fnprintf(ZYN_OUTPUT_FCN fcn, ZYN_OUTPUT_CTX ctx, const char* fmt, ...)
{
    ZYN_PRINTF_CTX pctx;
    va_start(pctx.args, fmt);
    const ZYN_RETCODE rc = format_calling(fcn, ctx, fmt, pctx);
    va_end(pctx.args);
    return rc;
}

int psp_vsnprintf(char* str, size_t size, const char* fmt, va_list args)
{
    ZYN_PRINTF_CTX pctx;
    va_copy(pctx.args, args);
    const int length = format_bounded(str, size, fmt, pctx);
    va_end(pctx.args);
    return length;
}

int psp_snprintf(char* str, size_t size, const char* fmt, ...)
{
    ZYN_PRINTF_CTX pctx;
    va_start(pctx.args, fmt);
    const int length = format_bounded(str, size, fmt, pctx);
    va_end(pctx.args);
    return length;
}
