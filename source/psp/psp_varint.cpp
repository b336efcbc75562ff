// Variable-length integers through byte callbacks.
//
// Encoding finds the length by at most four comparisons and then runs straight-line code for it,
// one call to the callback after the other. Decoding looks the length up by the first byte and
// runs one loop for all lengths: code for each length would have to be chosen by a byte that has
// only just arrived, and a wrong guess of the processor costs more than the loop.
//
// Callbacks may leave by longjmp: nothing is held across a call.
#include "psp/varint.h"

#include <array>
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

// How many bytes follow a first byte. 0xFB to 0xFF begin no encoding: 9 and more.
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

// Puts out the lower `count` bytes of the payload, the most significant one first.
template <size_t Count>
inline ZYN_RETCODE outputBytes(uintmax_t payload, ZYN_OUTPUT_FCN fcn, ZYN_OUTPUT_CTX ctx)
{
#pragma GCC unroll 8
    for (size_t left = Count; left > 0; left--) {
        const auto byte = static_cast<uint8_t>(payload >> (8 * (left - 1)));
        if (const ZYN_RETCODE rc = fcn(ctx, byte); rc != sOKAY)
            return rc;
    }
    return sOKAY;
}

template <size_t Size>
ZYN_RETCODE encodeAs(uintmax_t val, ZYN_OUTPUT_FCN fcn, ZYN_OUTPUT_CTX ctx)
{
    constexpr Layout layout = layouts[Size];
    const uintmax_t payload = val - layout.offset;
    uint32_t first = layout.mark;
    if constexpr (layout.mask != 0)
        first |= static_cast<uint8_t>(payload >> (8 * (Size - 1)));
    if (const ZYN_RETCODE rc = fcn(ctx, first); rc != sOKAY)
        return rc;
    return outputBytes<Size - 1>(payload, fcn, ctx);
}

// Reads `count` more bytes behind the bits in `payload`. The sum may wrap: nine bytes hold more
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

} // namespace

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
    const size_t following = reverse_lookup[first];
    if (following == 0) {
        *val = first;
        return sOKAY;
    }
    if (following + 1 >= layouts.size())
        return eINVVARINT;
    const Layout& layout = layouts[following + 1];
    return decodeBytes(fcn, ctx, following, first & layout.mask, layout.offset, val);
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
