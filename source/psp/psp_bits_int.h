// The byte order of a value's storage, for functions that reverse it on the way.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

inline uint16_t reversed(uint16_t word)
{
    return __builtin_bswap16(word);
}

inline uint32_t reversed(uint32_t word)
{
    return __builtin_bswap32(word);
}

inline uint64_t reversed(uint64_t word)
{
    return __builtin_bswap64(word);
}

// Works on the bytes in memory: a swapped float is no number to calculate with.
template <class T>
inline void swapBytes(T* val)
{
    using Wide = std::conditional_t<sizeof(T) == sizeof(uint64_t), uint64_t, uint32_t>;
    using Word = std::conditional_t<sizeof(T) == sizeof(uint16_t), uint16_t, Wide>;
    static_assert(sizeof(Word) == sizeof(T));
    Word word;
    memcpy(&word, val, sizeof word);
    word = reversed(word);
    memcpy(val, &word, sizeof word);
}
