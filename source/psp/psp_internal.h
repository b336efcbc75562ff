// The inside of formatted output and of UTF-8 decoding: the records of one engine call, the sinks
// that the engine is compiled for, and the decoder that the UTF-8 functions share.
//
// The engine is written once, over a sink. A sink counts every byte before it goes out and returns
// a status; the callback sink makes one call a byte, the buffer sink copies whole runs and never
// fails, so that its status checks vanish in compilation. Both show the same bytes and the same
// counts at every moment that a caller can look.
#pragma once

#include "psp/utf8.h"
#include "psptypes.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <utility>

// ---- One directive ----

// Bits of FORMAT_CTX::flags.
enum : uint16_t {
    FLAG_LEFT = 0x0001,     // '-' or a negative '*' width: pad on the right
    FLAG_PLUS = 0x0002,     // '+': signed values that are not negative get '+'
    FLAG_SPACE = 0x0004,    // ' ': they get a space, unless they get '+'
    FLAG_ALT = 0x0008,      // '#': alternate form
    FLAG_ZERO = 0x0010,     // '0': pad with zeros
    FLAG_GROUP = 0x0020,    // "'": group digits with the locale's thousands separator
    FLAG_UPPER = 0x0040,    // upper case digits, prefix and words
    FLAG_UNSIGNED = 0x0080, // the value has no sign
    FLAG_GENERAL = 0x0100,  // 'g', 'G': the shorter of the floating styles
    FLAG_EXPONENT = 0x0200, // 'e', 'E': floating style with exponent
    FLAG_POINTER = 0x0400,  // 'p': always with the hexadecimal prefix
};

// Length modifier.
enum CONV {
    C_DEFAULT = 0, // none
    C_CHAR = 1,    // hh
    C_SHORT = 2,   // h
    C_LONG = 3,    // l
    C_LLONG = 4,   // ll
    C_LDOUBLE = 5, // L
    C_SIZE = 6,    // z
    C_PTRDIFF = 7, // t
    C_INTMAX = 8,  // j
};

inline constexpr size_t NOT_GIVEN = SIZE_MAX; // FORMAT_CTX::precision of a directive without one

// One directive, made anew at each '%'.
struct FORMAT_CTX {
    uint16_t flags;   // FLAG_ bits
    CONV conv;        // length modifier
    uint32_t base;    // of integer conversions: 8, 10 or 16
    size_t width;     // minimum field width in bytes, 0: none
    size_t precision; // or NOT_GIVEN
    const char* fmt;  // position in the format
    lconv* lc;        // numeric conventions, once setup_locale has fetched them
};

// The state of one engine call; what has gone out is the sink's business.
struct ZYN_PRINTF_CTX {
    FORMAT_CTX fctx; // the current directive
    va_list args;    // the call's own copy of the caller's list
};

inline constexpr size_t MAX_DIGITS = 43;

// The layout of one integer: left spaces, sign, prefix, zeros, digits, right spaces.
struct INT_FORMAT {
    char sign;            // '-', '+', ' ', or 0 for none
    const char* prefix;   // "0", "0x", "0X", or NULL for none
    size_t len;           // number of digits
    size_t lspadlen;      // spaces before
    size_t rspadlen;      // spaces after
    size_t zpadlen;       // zeros between prefix and digits
    size_t separators;    // bytes that grouping adds
    char tmp[MAX_DIGITS]; // the digits, where they cannot go into the output at once
    uintmax_t uval;       // the magnitude
};

// The layout of one floating value: padding, sign, integer digits, point, fraction digits (as many
// as the precision tells), exponent, padding.
struct FLT_FORMAT {
    char sign;            // '-', '+', ' ', or 0 for none
    size_t elen;          // exponent characters, 0 in fixed notation
    size_t ilen;          // integer digits
    int32_t estyle;       // 1: exponent notation
    size_t lpadlen;       // padding before
    size_t rpadlen;       // padding after
    int32_t exponent;     // decimal exponent
    size_t emitpoint;     // length of the decimal point, 0 for none
    const char* point;    // the decimal point, "" for none
    int32_t omitzeros;    // 1: drop trailing fraction zeros
    size_t separators;    // bytes that grouping adds to the integer part
    char econvert[5];     // exponent characters
    char tmp[MAX_DIGITS]; // digits, as INT_FORMAT::tmp
    uintmax_t intpart;    // integer part of the value
    uintmax_t fracpart;   // its fraction times 10^precision, rounded
};

// ---- Sinks ----
//
// emit, emitn and emitstr write a byte, a byte n times, n bytes. claim gives room for n bytes in
// the output itself, to be filled at once, or NULL where there is none: then they go through
// emitstr. A sink that is full only counts; num tells the bytes so far.

// Copies a short run without the cost of a call; the ranges do not overlap. Above three bytes it
// moves two halves that may overlap, so that no byte outside the run is touched.
inline void copy_run(char* to, const char* from, size_t n)
{
    if (n > 16) {
        memcpy(to, from, n);
    } else if (n >= 8) {
        uint64_t head, tail;
        memcpy(&head, from, 8);
        memcpy(&tail, from + n - 8, 8);
        memcpy(to, &head, 8);
        memcpy(to + n - 8, &tail, 8);
    } else if (n >= 4) {
        uint32_t head, tail;
        memcpy(&head, from, 4);
        memcpy(&tail, from + n - 4, 4);
        memcpy(to, &head, 4);
        memcpy(to + n - 4, &tail, 4);
    } else if (n != 0) { // first, middle and last of one to three bytes
        const char head = from[0], middle = from[n / 2], tail = from[n - 1];
        to[0] = head;
        to[n / 2] = middle;
        to[n - 1] = tail;
    }
}

// Likewise for a byte that is repeated; most often it is not there at all.
inline void fill_run(char* to, char ch, size_t n)
{
    if (n == 0)
        return;
    const uint64_t bytes = 0x0101010101010101 * static_cast<unsigned char>(ch);
    if (n > 16) {
        memset(to, ch, n);
    } else if (n >= 8) {
        memcpy(to, &bytes, 8);
        memcpy(to + n - 8, &bytes, 8);
    } else if (n >= 4) {
        memcpy(to, &bytes, 4);
        memcpy(to + n - 4, &bytes, 4);
    } else {
        to[0] = to[n / 2] = to[n - 1] = ch;
    }
}

// Hands every byte to the caller's callback, which may stop the output.
struct CALLBACK_SINK {
    ZYN_OUTPUT_FCN fcn;
    ZYN_OUTPUT_CTX ctx; // the callback's own
    size_t count;       // bytes handed over, the one under way included

    ZYN_RETCODE emit(char ch)
    {
        ++count;
        return fcn(ctx, static_cast<unsigned char>(ch));
    }

    ZYN_RETCODE emitn(char ch, size_t n)
    {
        ZYN_RETCODE rc = sOKAY;
        for (; n != 0 && rc == sOKAY; --n)
            rc = emit(ch);
        return rc;
    }

    ZYN_RETCODE emitstr(const char* bytes, size_t n)
    {
        ZYN_RETCODE rc = sOKAY;
        for (size_t i = 0; i < n && rc == sOKAY; ++i)
            rc = emit(bytes[i]);
        return rc;
    }

    static char* claim(size_t)
    {
        return nullptr;
    }

    size_t num() const
    {
        return count;
    }
};

// Writes into room that has been claimed for a whole field, without looking for its end.
struct ROOM_SINK {
    char* pos;

    ZYN_RETCODE emit(char ch)
    {
        *pos++ = ch;
        return sOKAY;
    }

    ZYN_RETCODE emitn(char ch, size_t n)
    {
        fill_run(pos, ch, n);
        pos += n;
        return sOKAY;
    }

    ZYN_RETCODE emitstr(const char* bytes, size_t n)
    {
        copy_run(pos, bytes, n);
        pos += n;
        return sOKAY;
    }

    char* claim(size_t n)
    {
        return std::exchange(pos, pos + n);
    }
};

// Stores what fits and counts everything, as a ZYN_OUTPUT_BUFF does byte by byte. Bytes behind the
// text are never touched, not even for a moment.
struct BUFFER_SINK {
    char* start;
    char* pos;   // where the next byte goes
    char* end;   // end of what may be stored
    size_t lost; // bytes that did not fit

    ZYN_RETCODE emit(char ch)
    {
        if (pos != end)
            *pos++ = ch;
        else
            ++lost;
        return sOKAY;
    }

    ZYN_RETCODE emitn(char ch, size_t n)
    {
        if (n > room()) [[unlikely]]
            n = cut(n);
        fill_run(pos, ch, n);
        pos += n;
        return sOKAY;
    }

    ZYN_RETCODE emitstr(const char* bytes, size_t n)
    {
        if (n > room()) [[unlikely]]
            n = cut(n);
        copy_run(pos, bytes, n);
        pos += n;
        return sOKAY;
    }

    char* claim(size_t n)
    {
        return n <= room() ? std::exchange(pos, pos + n) : nullptr;
    }

    bool full() const
    {
        return pos == end;
    }

    size_t num() const
    {
        return static_cast<size_t>(pos - start) + lost;
    }

    size_t room() const
    {
        return static_cast<size_t>(end - pos);
    }

  private:
    // Gives up what does not fit of n bytes; returns how many do.
    size_t cut(size_t n)
    {
        lost += n - room();
        return room();
    }
};

// Reads flags, width, precision and modifier, as far as they are there, from the position in the
// format on; eRANGE for a width or a precision of too many digits.
ZYN_RETCODE parse_directive(ZYN_PRINTF_CTX& pctx);

// ---- What integers and floating values share ----

// 10^0 to 10^19, all that 64 bits hold.
consteval std::array<uint64_t, 20> decimal_powers()
{
    std::array<uint64_t, 20> powers{1};
    for (size_t i = 1; i < powers.size(); ++i)
        powers[i] = powers[i - 1] * 10;
    return powers;
}
inline constexpr std::array<uint64_t, 20> DECIMAL_POWERS = decimal_powers();

// The number of digits of `val`, at least one. `base` is 8, 10 or 16, here and below.
inline size_t count_digits(uintmax_t val, uint32_t base)
{
    const auto bits = static_cast<size_t>(std::bit_width(val | 1));
    if (base == 16)
        return (bits + 3) / 4;
    if (base == 8)
        return (bits + 2) / 3;
    const size_t len = bits * 1233 >> 12; // 1233 / 2^12 is log10(2); right or one too few
    return len + ((val | 1) >= DECIMAL_POWERS[len]);
}

// Writes the digits of `val` downwards from `end`; their number is that of count_digits.
void convert(char* end, uintmax_t val, uint32_t base, bool upper);

// Writes just the last `len` decimal digits of `val`, zeros in front included.
void convert_fraction(char* end, uintmax_t val, size_t len);

// Writes the digits of `val` from `start` on, hexadecimal ones in lower case; returns their end.
char* put_decimal(char* start, uintmax_t val);
char* put_hexadecimal(char* start, uintmax_t val);

// The C library's numeric conventions, fetched once a directive.
const lconv& setup_locale(FORMAT_CTX& fctx);

// The locale's thousands separator; may be empty.
const char* get_thousands_sep(FORMAT_CTX& fctx);

// The bytes that grouping adds to `len` digits: for no digits at all the count wraps to a huge one,
// unless the separator is empty.
size_t getnumsep(FORMAT_CTX& fctx, size_t len);

template <class Sink>
ZYN_RETCODE printsep(Sink& sink, FORMAT_CTX& fctx)
{
    const char* const sep = get_thousands_sep(fctx);
    return sink.emitstr(sep, strlen(sep));
}

// Emits the `len` digits of `val`. `tmp`, MAX_DIGITS bytes, holds them where the output has no room
// for them all.
template <class Sink>
ZYN_RETCODE print_digits(Sink& sink, const FORMAT_CTX& fctx, uintmax_t val, size_t len, char* tmp)
{
    char* const room = sink.claim(len);
    if constexpr (requires { sink.full(); })
        if (room == nullptr && sink.full())
            return sink.emitn('0', len); // they only count
    char* const start = room != nullptr ? room : tmp;
    convert(start + len, val, fctx.base, fctx.flags & FLAG_UPPER);
    return room != nullptr ? sOKAY : sink.emitstr(start, len);
}

// The same in groups of three from the right.
template <class Sink>
ZYN_RETCODE print_groups(Sink& sink, FORMAT_CTX& fctx, uintmax_t val, size_t len, char* tmp)
{
    convert(tmp + len, val, fctx.base, fctx.flags & FLAG_UPPER);
    const size_t first = (len - 1) % 3 + 1;
    ZYN_RETCODE rc = sink.emitstr(tmp, first);
    for (size_t i = first; i < len && rc == sOKAY; i += 3) {
        rc = printsep(sink, fctx);
        if (rc == sOKAY)
            rc = sink.emitstr(tmp + i, 3);
    }
    return rc;
}

// Takes the argument of a floating conversion and emits its text. Compiled for both sinks.
template <class Sink>
ZYN_RETCODE handle_float(Sink& sink, ZYN_PRINTF_CTX& pctx);

extern template ZYN_RETCODE handle_float(CALLBACK_SINK& sink, ZYN_PRINTF_CTX& pctx);
extern template ZYN_RETCODE handle_float(BUFFER_SINK& sink, ZYN_PRINTF_CTX& pctx);

// ---- UTF-8 decoding ----

// A counted text; may hold NUL bytes.
struct BUFFER_INPUT_CTX {
    const char* input;
    size_t pos;  // of the next byte
    size_t size; // of the text
};

// A NUL-terminated text.
struct STRING_INPUT_CTX {
    const char* input;
    size_t pos; // of the next byte
};

// Destination of psp_copyUTF8Chars.
struct PSP_UTF8_COPY_INFO {
    char* dest;       // where the next character goes, or NULL
    size_t size;      // room left in bytes
    size_t num_chars; // characters copied
    ZYN_BOOL_T done;  // a character did not fit
};

// Counters of psp_countUTF8bytes.
struct PSP_UTF8_COUNT_BYTES {
    size_t chars; // characters still to count
    size_t bytes; // length of those counted
};

// Destination of the conversions to wide characters.
struct WCHAR_EMIT_INFO {
    wchar_t* buff; // NULL: count only
    size_t size;   // elements that may be stored
    size_t off;    // elements stored or counted
};

// Input functions: the next byte, or eEOD.
ZYN_RETCODE bufferInputFcn(ZYN_INPUT_CTX ctx, uint32_t* ch); // of a BUFFER_INPUT_CTX
ZYN_RETCODE stringInputFcn(ZYN_INPUT_CTX ctx, uint32_t* ch); // of a STRING_INPUT_CTX

// Decodes bytes into code points: takes them from `infcn` and hands each code point to `outfcn`,
// whose sNOTFOUND ends the work with success.
ZYN_RETCODE psp_processInput(ZYN_INPUT_FCN infcn, ZYN_INPUT_CTX inctx, ZYN_OUTPUT_FCN outfcn,
                             ZYN_OUTPUT_CTX outctx, PSP_UTF8_ERROR_BEHAVIOR errorBehavior);
