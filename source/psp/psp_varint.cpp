// Variable-length integers through byte callbacks.
//
// The number of a value's bits and one comparison tell its length, and so does the first byte of an
// encoding. The bytes then follow in one row of code that is left behind the last of them: where
// lengths are mixed by chance, a processor guesses wrong once for a value, and late enough to have
// done the value's work meanwhile. Code of its own for each length would wait at its beginning, and
// a loop would jump back for every byte. Values of one byte, the usual ones, go before all that.
//
// Callbacks may leave by longjmp: nothing is held across a call.
#include "psp_varint_int.h"

#include <bit>
#include <type_traits>
#include <utility>

namespace {

constexpr size_t longest = 9; // bytes

// What the format fixes for one length in bytes.
struct Layout {
    uintmax_t offset; // the first value of this length; the payload is the distance from it
    uint8_t mark;     // high bits of the first byte
    uint8_t mask;     // those of its low bits that carry payload
};

// clang-format off
constexpr std::array<Layout, 10> layouts = {{
    {0,                 0x00, 0x00}, // no encoding has length 0
    {0,                 0x00, 0x7F},
    {0x80,              0x80, 0x3F},
    {0x4080,            0xC0, 0x1F},
    {0x204080,          0xE0, 0x07},
    {0x8204080,         0xE8, 0x07},
    {0x808204080,       0xF0, 0x07},
    {0x80808204080,     0xF8, 0x00},
    {0x1080808204080,   0xF9, 0x00},
    {0x101080808204080, 0xFA, 0x00},
}};
// clang-format on

// Puts out `val`, which lies in the range of `length`. A shift by 64 bits leaves what does not
// count.
inline ZYN_RETCODE encodeBytes(ZYN_OUTPUT_FCN fcn, ZYN_OUTPUT_CTX ctx, size_t length, uintmax_t val)
{
    const Layout& layout = layouts[length];
    const uintmax_t payload = val - layout.offset;
    const auto top = static_cast<uint8_t>(payload >> (8 * (length - 1) % 64));
    uint32_t byte = layout.mark | (top & layout.mask);
    uintmax_t rest = payload << (8 * (longest - length) % 64); // the byte that follows is on top
#pragma GCC unroll 8
    for (size_t count = 1; count < longest; count++) {
        if (const ZYN_RETCODE rc = fcn(ctx, byte); rc != sOKAY || count == length)
            return rc;
        byte = static_cast<uint32_t>(rest >> 56);
        rest <<= 8;
    }
    return fcn(ctx, byte);
}

// Takes what follows the first of `length` bytes. The sum may wrap: nine bytes hold more than the
// largest value.
inline ZYN_RETCODE decodeBytes(ZYN_INPUT_FCN fcn, ZYN_INPUT_CTX ctx, size_t length, uint8_t first,
                               uintmax_t* val)
{
    const Layout& layout = layouts[length];
    uintmax_t payload = first & layout.mask;
#pragma GCC unroll 8
    for (size_t count = 1; count < longest; count++) {
        if (count == length)
            break;
        uint32_t byte = 0;
        if (const ZYN_RETCODE rc = fcn(ctx, &byte); rc != sOKAY)
            return rc;
        payload = (payload << 8) | byte;
    }
    *val = payload + layout.offset;
    return sOKAY;
}

// For the table alone, whose rows are used one by one from outside; they stay out of the codec's
// way.
template <size_t Size>
[[gnu::cold]] ZYN_RETCODE encode(ZYN_OUTPUT_FCN fcn, ZYN_OUTPUT_CTX ctx, uintmax_t val)
{
    return encodeBytes(fcn, ctx, Size, val);
}

template <size_t Size>
[[gnu::cold]] ZYN_RETCODE decode(ZYN_INPUT_FCN fcn, ZYN_INPUT_CTX ctx, uint8_t first,
                                 uintmax_t* val)
{
    return decodeBytes(fcn, ctx, Size, first, val);
}

// clang-format off
constexpr auto& encode_1_byte  = encode<1>;    constexpr auto& decode_1_byte  = decode<1>;
constexpr auto& encode_2_bytes = encode<2>;    constexpr auto& decode_2_bytes = decode<2>;
constexpr auto& encode_3_bytes = encode<3>;    constexpr auto& decode_3_bytes = decode<3>;
constexpr auto& encode_4_bytes = encode<4>;    constexpr auto& decode_4_bytes = decode<4>;
constexpr auto& encode_5_bytes = encode<5>;    constexpr auto& decode_5_bytes = decode<5>;
constexpr auto& encode_6_bytes = encode<6>;    constexpr auto& decode_6_bytes = decode<6>;
constexpr auto& encode_7_bytes = encode<7>;    constexpr auto& decode_7_bytes = decode<7>;
constexpr auto& encode_8_bytes = encode<8>;    constexpr auto& decode_8_bytes = decode<8>;
constexpr auto& encode_9_bytes = encode<9>;    constexpr auto& decode_9_bytes = decode<9>;

} // namespace

constexpr std::array<PSP_ENCODE_INFO, 9> psp_encoder_fcns = {{
    {1, encode_1_byte,  decode_1_byte},
    {2, encode_2_bytes, decode_2_bytes},
    {3, encode_3_bytes, decode_3_bytes},
    {4, encode_4_bytes, decode_4_bytes},
    {5, encode_5_bytes, decode_5_bytes},
    {6, encode_6_bytes, decode_6_bytes},
    {7, encode_7_bytes, decode_7_bytes},
    {8, encode_8_bytes, decode_8_bytes},
    {9, encode_9_bytes, decode_9_bytes},
}};

constexpr std::array<uint8_t, 256> reverse_lookup = {
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  0,  0,  0,  0, 0, 0, // 00
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  0,  0,  0,  0, 0, 0, // 10
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  0,  0,  0,  0, 0, 0, // 20
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  0,  0,  0,  0, 0, 0, // 30
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  0,  0,  0,  0, 0, 0, // 40
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  0,  0,  0,  0, 0, 0, // 50
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  0,  0,  0,  0, 0, 0, // 60
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  0,  0,  0,  0, 0, 0, // 70
    1, 1, 1, 1, 1, 1, 1, 1, 1, 1,  1,  1,  1,  1, 1, 1, // 80
    1, 1, 1, 1, 1, 1, 1, 1, 1, 1,  1,  1,  1,  1, 1, 1, // 90
    1, 1, 1, 1, 1, 1, 1, 1, 1, 1,  1,  1,  1,  1, 1, 1, // A0
    1, 1, 1, 1, 1, 1, 1, 1, 1, 1,  1,  1,  1,  1, 1, 1, // B0
    2, 2, 2, 2, 2, 2, 2, 2, 2, 2,  2,  2,  2,  2, 2, 2, // C0
    2, 2, 2, 2, 2, 2, 2, 2, 2, 2,  2,  2,  2,  2, 2, 2, // D0
    3, 3, 3, 3, 3, 3, 3, 3, 4, 4,  4,  4,  4,  4, 4, 4, // E0
    5, 5, 5, 5, 5, 5, 5, 5, 6, 7,  8,  9, 10, 11, 12, 13, // F0
};
// clang-format on

namespace {

// For the values with the same highest bit: the length of the least of them, and the first value
// that takes a byte more.
struct Shortest {
    uintmax_t end[64];
    uint8_t length[64];
};

constexpr Shortest shortest = [] {
    Shortest table{};
    for (size_t bit = 0; bit < 64; bit++) {
        const uintmax_t least = uintmax_t{1} << bit;
        uint8_t length = longest - 1;
        while (length > 1 && least < layouts[length].offset)
            length--;
        table.length[bit] = length;
        table.end[bit] = layouts[length + 1U].offset;
    }
    return table;
}();

// Of any value but 0.
size_t lengthOf(uintmax_t val)
{
    const auto bit = static_cast<size_t>(std::bit_width(val)) - 1;
    return shortest.length[bit] + (val >= shortest.end[bit] ? 1U : 0U);
}

// Apart, so that a value of one byte needs no frame.
[[gnu::noinline]] ZYN_RETCODE encodeLonger(uintmax_t val, ZYN_OUTPUT_FCN fcn, ZYN_OUTPUT_CTX ctx)
{
    return encodeBytes(fcn, ctx, lengthOf(val), val);
}

} // namespace

ZYN_RETCODE psp_vintEncodeUIntmax(uintmax_t val, ZYN_OUTPUT_FCN fcn, ZYN_OUTPUT_CTX ctx)
{
    if (val < layouts[2].offset)
        return fcn(ctx, static_cast<uint32_t>(val));
    return encodeLonger(val, fcn, ctx);
}

ZYN_RETCODE psp_vintDecodeUIntmax(ZYN_INPUT_FCN fcn, ZYN_INPUT_CTX ctx, uintmax_t* val)
{
    uint32_t byte = 0;
    if (const ZYN_RETCODE rc = fcn(ctx, &byte); rc != sOKAY)
        return rc;
    const auto first = static_cast<uint8_t>(byte);
    if (first < layouts[2].offset) [[likely]] {
        *val = first;
        return sOKAY;
    }
    const size_t row = reverse_lookup[first];
    if (row >= psp_encoder_fcns.size())
        return eINVVARINT;
    return decodeBytes(fcn, ctx, row + 1, first, val);
}

ZYN_RETCODE psp_vintDecodeUInt32(ZYN_INPUT_FCN fcn, ZYN_INPUT_CTX ctx, uint32_t* val)
{
    uintmax_t wide = 0;
    if (const ZYN_RETCODE rc = psp_vintDecodeUIntmax(fcn, ctx, &wide); rc != sOKAY)
        return rc;
    if (!std::in_range<uint32_t>(wide))
        return eRANGE;
    *val = static_cast<uint32_t>(wide);
    return sOKAY;
}

ZYN_RETCODE psp_vintDecodeSize_t(ZYN_INPUT_FCN fcn, ZYN_INPUT_CTX ctx, size_t* val)
{
    static_assert(std::is_same_v<size_t, uintmax_t>);
    return psp_vintDecodeUIntmax(fcn, ctx, val);
}

uintmax_t psp_vintConvertToUnsigned(intmax_t val)
{
    const uintmax_t doubled = static_cast<uintmax_t>(val) << 1;
    return val < 0 ? ~doubled : doubled;
}

intmax_t psp_vintConvertToSigned(uintmax_t val)
{
    const uintmax_t half = val >> 1;
    return static_cast<intmax_t>((val & 1) != 0 ? ~half : half);
}
