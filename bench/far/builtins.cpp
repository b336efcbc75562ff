#include "builtins.h"

namespace far {

uint32_t highest_bit(uint32_t value)
{
    return value == 0 ? 0 : 32 - static_cast<uint32_t>(__builtin_clz(value));
}

uint32_t highest_bit64(uint64_t value)
{
    return value == 0 ? 0 : 64 - static_cast<uint32_t>(__builtin_clzll(value));
}

// There is no builtin for the bits within a byte.
uint64_t reverse_bits(uint64_t value)
{
    value = (value >> 1 & 0x5555555555555555) | (value & 0x5555555555555555) << 1;
    value = (value >> 2 & 0x3333333333333333) | (value & 0x3333333333333333) << 2;
    value = (value >> 4 & 0x0F0F0F0F0F0F0F0F) | (value & 0x0F0F0F0F0F0F0F0F) << 4;
    return __builtin_bswap64(value);
}

uint32_t align_up(uint32_t offset, ALIGN_TYPE type)
{
    static constexpr uint32_t alignments[] = {1, 2, 4, 4, 4, 8, 8};
    const uint32_t alignment = alignments[type];
    return (offset + alignment - 1) & -alignment;
}

uint64_t align_up8(uint64_t size)
{
    return (size + 7) & -uint64_t{8};
}

void swap16(uint16_t* value)
{
    *value = __builtin_bswap16(*value);
}

void swap32(uint32_t* value)
{
    *value = __builtin_bswap32(*value);
}

void swap64(uint64_t* value)
{
    *value = __builtin_bswap64(*value);
}

} // namespace far
