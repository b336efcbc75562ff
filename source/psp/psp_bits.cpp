// Byte order and bit scanning: pure functions over a value's storage.
//
// The swaps work on the bytes in memory, not on numbers: the signed and floating forms reverse the
// same storage as the unsigned one, and a swapped float is never loaded as a float.
#include "psp/bits.h"

#include <array>
#include <concepts>
#include <cstring>

namespace {

uint16_t reversed(uint16_t word)
{
    return __builtin_bswap16(word);
}

uint32_t reversed(uint32_t word)
{
    return __builtin_bswap32(word);
}

uint64_t reversed(uint64_t word)
{
    return __builtin_bswap64(word);
}

template <std::unsigned_integral Word, class T>
void swapBytes(T* val)
{
    static_assert(sizeof(Word) == sizeof(T));
    Word word;
    memcpy(&word, val, sizeof word);
    word = reversed(word);
    memcpy(val, &word, sizeof word);
}

// The 1-based position of a nibble's highest set bit, 0 for 0.
constexpr std::array<uint32_t, 16> psp_first_bit_lookup = {0, 1, 2, 2, 3, 3, 3, 3,
                                                           4, 4, 4, 4, 4, 4, 4, 4};

// The place of the nibble that holds the highest set bit.
uint32_t highestNibbleShift(uint32_t val)
{
    if (val < 0x10000) {
        if ((val & 0xFF00) == 0)
            return (val & 0xF0) != 0 ? 4 : 0;
        return (val & 0xF000) != 0 ? 12 : 8;
    }
    if (val >= 0x1000000)
        return val > 0xFFFFFFF ? 28 : 24;
    return (val & 0xF00000) != 0 ? 20 : 16;
}

// Swaps neighbouring groups of `distance` bits; `mask` selects the lower one of each pair.
constexpr uint64_t swapGroups(uint64_t val, uint64_t mask, int distance)
{
    return ((val >> distance) & mask) | ((val & mask) << distance);
}

} // namespace

void psp_swaporderUInt16(uint16_t* val)
{
    swapBytes<uint16_t>(val);
}

void psp_swaporderUInt32(uint32_t* val)
{
    swapBytes<uint32_t>(val);
}

void psp_swaporderUInt64(uint64_t* val)
{
    swapBytes<uint64_t>(val);
}

void psp_swaporderInt16(int16_t* val)
{
    swapBytes<uint16_t>(val);
}

void psp_swaporderInt32(int32_t* val)
{
    swapBytes<uint32_t>(val);
}

void psp_swaporderInt64(int64_t* val)
{
    swapBytes<uint64_t>(val);
}

void psp_swaporderFloat(float* val)
{
    swapBytes<uint32_t>(val);
}

void psp_swaporderDouble(double* val)
{
    swapBytes<uint64_t>(val);
}

uint32_t psp_bitFirstSet(uint32_t val)
{
    const uint32_t shift = highestNibbleShift(val);
    return shift + psp_first_bit_lookup[val >> shift];
}

uint32_t psp_bitFirstSet64(uint64_t val)
{
    const auto upper = static_cast<uint32_t>(val >> 32);
    return upper != 0 ? 32 + psp_bitFirstSet(upper) : psp_bitFirstSet(static_cast<uint32_t>(val));
}

uint64_t psp_bitReverse64(uint64_t val)
{
    val = swapGroups(val, 0x5555555555555555, 1);
    val = swapGroups(val, 0x3333333333333333, 2);
    val = swapGroups(val, 0x0F0F0F0F0F0F0F0F, 4);
    val = swapGroups(val, 0x00FF00FF00FF00FF, 8);
    val = swapGroups(val, 0x0000FFFF0000FFFF, 16);
    return (val >> 32) | (val << 32);
}
