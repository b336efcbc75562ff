// Byte order and bit scanning: pure functions over a value's storage. The signed and floating forms
// of the swaps reverse the same storage as the unsigned one.
#include "psp/bits.h"

#include "psp_bits_int.h"

#include <bit>

namespace {

// Swaps neighbouring groups of `distance` bits; `mask` selects the lower one of each pair.
constexpr uint64_t swapGroups(uint64_t val, uint64_t mask, int distance)
{
    return ((val >> distance) & mask) | ((val & mask) << distance);
}

} // namespace

void psp_swaporderUInt16(uint16_t* val)
{
    swapBytes(val);
}

void psp_swaporderUInt32(uint32_t* val)
{
    swapBytes(val);
}

void psp_swaporderUInt64(uint64_t* val)
{
    swapBytes(val);
}

void psp_swaporderInt16(int16_t* val)
{
    swapBytes(val);
}

void psp_swaporderInt32(int32_t* val)
{
    swapBytes(val);
}

void psp_swaporderInt64(int64_t* val)
{
    swapBytes(val);
}

void psp_swaporderFloat(float* val)
{
    swapBytes(val);
}

void psp_swaporderDouble(double* val)
{
    swapBytes(val);
}

uint32_t psp_bitFirstSet(uint32_t val)
{
    return static_cast<uint32_t>(std::bit_width(val));
}

uint32_t psp_bitFirstSet64(uint64_t val)
{
    return static_cast<uint32_t>(std::bit_width(val));
}

uint64_t psp_bitReverse64(uint64_t val)
{
    val = swapGroups(val, 0x5555555555555555, 1);
    val = swapGroups(val, 0x3333333333333333, 2);
    val = swapGroups(val, 0x0F0F0F0F0F0F0F0F, 4);
    return reversed(val);
}
