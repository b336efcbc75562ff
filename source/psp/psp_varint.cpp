// Variable-length integers through byte callbacks.
//
// Encoding finds the length by at most four comparisons, decoding by the first byte; the length's
// row in the codec table then does the work. Encoding calls the row's function directly and runs
// straight-line code, one call to the callback after the other. Decoding has to jump to a row that
// a byte which has only just arrived chooses, and all rows share one loop behind it: with lengths
// mixed by chance, code of its own for each length takes half as long again.
//
// Callbacks may leave by longjmp: nothing is held across a call.
#include "psp_varint_int.h"

#include <type_traits>
#include <utility>

namespace {

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

// Puts out the lower `Count` bytes of the payload, the most significant one first.
template <size_t Count>
inline ZYN_RETCODE outputBytes(ZYN_OUTPUT_FCN fcn, ZYN_OUTPUT_CTX ctx, uintmax_t payload)
{
#pragma GCC unroll 8
    for (size_t left = Count; left > 0; left--) {
        const auto byte = static_cast<uint8_t>(payload >> (8 * (left - 1)));
        if (const ZYN_RETCODE rc = fcn(ctx, byte); rc != sOKAY)
            return rc;
    }
    return sOKAY;
}

// Takes `count` bytes more behind the payload's first bits. The sum may wrap: nine bytes hold more
// than the largest value.
ZYN_RETCODE decodeBytes(ZYN_INPUT_FCN fcn, ZYN_INPUT_CTX ctx, size_t count, uintmax_t payload,
                        uintmax_t offset, uintmax_t* val)
{
    for (; count > 0; count--) {
        uint32_t byte = 0;
        if (const ZYN_RETCODE rc = fcn(ctx, &byte); rc != sOKAY)
            return rc;
        payload = (payload << 8) | byte;
    }
    *val = payload + offset;
    return sOKAY;
}

template <size_t Size>
ZYN_RETCODE encode(ZYN_OUTPUT_FCN fcn, ZYN_OUTPUT_CTX ctx, uintmax_t val)
{
    constexpr Layout layout = layouts[Size];
    const uintmax_t payload = val - layout.offset;
    uint32_t first = layout.mark;
    if constexpr (layout.mask != 0)
        first |= static_cast<uint8_t>(payload >> (8 * (Size - 1)));
    if (const ZYN_RETCODE rc = fcn(ctx, first); rc != sOKAY)
        return rc;
    return outputBytes<Size - 1>(fcn, ctx, payload);
}

template <size_t Size>
ZYN_RETCODE decode(ZYN_INPUT_FCN fcn, ZYN_INPUT_CTX ctx, uint8_t first, uintmax_t* val)
{
    constexpr Layout layout = layouts[Size];
    return decodeBytes(fcn, ctx, Size - 1, first & layout.mask, layout.offset, val);
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

// A row that is a constant becomes a direct call.
template <size_t Size>
static inline ZYN_RETCODE encodeAs(uintmax_t val, ZYN_OUTPUT_FCN fcn, ZYN_OUTPUT_CTX ctx)
{
    return psp_encoder_fcns[Size - 1].encode_fcn(fcn, ctx, val);
}

ZYN_RETCODE psp_vintEncodeUIntmax(uintmax_t val, ZYN_OUTPUT_FCN fcn, ZYN_OUTPUT_CTX ctx)
{
    if (val < layouts[5].offset) {
        if (val < layouts[3].offset)
            return val < layouts[2].offset ? encodeAs<1>(val, fcn, ctx)
                                           : encodeAs<2>(val, fcn, ctx);
        return val < layouts[4].offset ? encodeAs<3>(val, fcn, ctx) : encodeAs<4>(val, fcn, ctx);
    }
    if (val < layouts[7].offset)
        return val < layouts[6].offset ? encodeAs<5>(val, fcn, ctx) : encodeAs<6>(val, fcn, ctx);
    if (val < layouts[8].offset)
        return encodeAs<7>(val, fcn, ctx);
    return val < layouts[9].offset ? encodeAs<8>(val, fcn, ctx) : encodeAs<9>(val, fcn, ctx);
}

ZYN_RETCODE psp_vintDecodeUIntmax(ZYN_INPUT_FCN fcn, ZYN_INPUT_CTX ctx, uintmax_t* val)
{
    uint32_t byte = 0;
    if (const ZYN_RETCODE rc = fcn(ctx, &byte); rc != sOKAY)
        return rc;
    const auto first = static_cast<uint8_t>(byte);
    const size_t row = reverse_lookup[first];
    if (row >= psp_encoder_fcns.size())
        return eINVVARINT;
    return psp_encoder_fcns[row].decode_fcn(fcn, ctx, first, val);
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
