// Sound text on processors with AVX-512 and its byte shuffles.
//
// Scanning is as with AVX2. Widening takes 16 characters at a time: one instruction gathers the
// places where characters start, one lays the four bytes from each start on into a lane of its own;
// the lanes are decoded alike. Masks keep what is read and written within its bounds.
#define PSP_VECTOR_TARGET gnu::target("avx512f,avx512bw,avx512vbmi,avx512vbmi2,popcnt")
#include "psp_utf8_block.h"

#include <immintrin.h>

#if defined(__GNUC__) && !defined(__clang__)
// The compiler's own header starts from registers with anything in them.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

namespace {

constexpr size_t BLOCK = sizeof(__m512i); // bytes that are looked at

constexpr auto numbers = [] {
    std::array<uint8_t, BLOCK> table{};
    for (size_t i = 0; i < BLOCK; ++i)
        table[i] = static_cast<uint8_t>(i);
    return table;
}();

// The number of the lane of 32 bits that each byte is in.
constexpr auto four_of_each = [] {
    std::array<uint8_t, BLOCK> table{};
    for (size_t i = 0; i < BLOCK; ++i)
        table[i] = static_cast<uint8_t>(i / 4);
    return table;
}();

// The lowest bits of a mask, fewer than 64.
inline uint64_t low_bits(size_t n)
{
    return (uint64_t{1} << n) - 1;
}

struct VECTORS {
    using BYTES = __m512i;

    PSP_VECTOR_INLINE static BYTES load(const void* bytes)
    {
        return _mm512_loadu_si512(bytes);
    }
    PSP_VECTOR_INLINE static BYTES every(uint32_t byte)
    {
        BYTES bytes = _mm512_set1_epi8(static_cast<char>(byte));
        __asm__("" : "+v"(bytes)); // else the compiler makes it anew for every vector
        return bytes;
    }
    template <uint32_t N>
    PSP_VECTOR_INLINE static BYTES before(BYTES bytes)
    {
        const BYTES places = _mm512_sub_epi8(load(numbers.data()), every(N));
        return _mm512_maskz_permutexvar_epi8(~low_bits(N), places, bytes);
    }
    PSP_VECTOR_INLINE static BYTES shifted(BYTES bytes)
    {
        return _mm512_srli_epi16(bytes, 4);
    }
    PSP_VECTOR_INLINE static BYTES look_up(const std::array<uint8_t, 16>& table, BYTES bytes)
    {
        const __m128i quarter = _mm_loadu_si128(reinterpret_cast<const __m128i*>(table.data()));
        return _mm512_shuffle_epi8(_mm512_broadcast_i32x4(quarter), bytes);
    }
    PSP_VECTOR_INLINE static BYTES above(BYTES bytes, BYTES others)
    {
        return _mm512_subs_epu8(bytes, others);
    }
    PSP_VECTOR_INLINE static uint64_t signs(BYTES bytes)
    {
        return _mm512_movepi8_mask(bytes);
    }
    PSP_VECTOR_INLINE static uint64_t starts(BYTES bytes)
    {
        return _mm512_cmpgt_epi8_mask(bytes, every(0xBF));
    }
    PSP_VECTOR_INLINE static uint64_t zeros(BYTES bytes)
    {
        return _mm512_testn_epi8_mask(bytes, bytes);
    }
    PSP_VECTOR_INLINE static uint64_t others(BYTES bytes)
    {
        return _mm512_test_epi8_mask(bytes, bytes);
    }
    static const UTF8_VARIANT& smaller()
    {
        return psp_utf8_avx2;
    }
};

PSP_VECTOR UTF8_RUN scan(const char* text, UTF8_RUN limit)
{
    return scan_vectors<VECTORS>(text, limit);
}

// ---- Widening ----

constexpr size_t STRIDE = BLOCK - 3;              // bytes that a whole character may start in
constexpr size_t LANES = BLOCK / sizeof(wchar_t); // characters that are decoded at once

// Decodes 16 characters of sound text. `leads` has the place where each starts, four times.
PSP_VECTOR_INLINE __m512i decode(__m512i text, __m512i leads)
{
    // Four bytes from each start on, the lead the most significant one of its lane.
    const __m512i bytes =
        _mm512_permutexvar_epi8(_mm512_add_epi8(leads, _mm512_set1_epi32(0x00010203)), text);
    // The lead's high nibble tells the length.
    const __m512i kind = _mm512_srli_epi32(bytes, 28);
    const __m512i others = _mm512_permutexvar_epi32(
        kind, _mm512_setr_epi32(24, 24, 24, 24, 24, 24, 24, 24, 0, 0, 0, 0, 16, 16, 8, 0));
    const __m512i marks =
        _mm512_permutexvar_epi32(kind, _mm512_setr_epi32(0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x3080,
                                                         0x3080, 0xE2080, 0x3C82080));
    // Bytes of other characters out of the way; then each byte by its place, less the marks.
    const __m512i own = _mm512_srlv_epi32(bytes, others);
    const __m512i pairs = _mm512_maddubs_epi16(own, _mm512_set1_epi16(0x4001));
    return _mm512_sub_epi32(_mm512_madd_epi16(pairs, _mm512_set1_epi32(0x10000001)), marks);
}

PSP_VECTOR_INLINE void store(wchar_t* dest, __m512i lanes)
{
    _mm512_storeu_si512(dest, lanes);
}

// Elements by which a destination misses the start of a block in memory: there a store touches one
// line of the cache, elsewhere two.
inline size_t misplaced(const wchar_t* dest)
{
    return reinterpret_cast<uintptr_t>(dest) % BLOCK / sizeof *dest;
}

// Widens a block of ASCII.
PSP_VECTOR_INLINE void widen_ascii(wchar_t* dest, __m512i text)
{
    store(dest, _mm512_cvtepu8_epi32(_mm512_castsi512_si128(text)));
    store(dest + LANES, _mm512_cvtepu8_epi32(_mm512_extracti32x4_epi32(text, 1)));
    store(dest + 2 * LANES, _mm512_cvtepu8_epi32(_mm512_extracti32x4_epi32(text, 2)));
    store(dest + 3 * LANES, _mm512_cvtepu8_epi32(_mm512_extracti32x4_epi32(text, 3)));
}

// Widens the first `count` characters, at least 1, of those that start where the mask says so.
PSP_VECTOR_INLINE void widen_block(wchar_t* dest, size_t count, __m512i text, uint64_t mask)
{
    const __m512i places = _mm512_maskz_compress_epi8(mask, VECTORS::load(numbers.data()));
    __m512i lanes = VECTORS::load(four_of_each.data());
    for (; count > LANES; count -= LANES, dest += LANES) {
        store(dest, decode(text, _mm512_permutexvar_epi8(lanes, places)));
        lanes = _mm512_add_epi8(lanes, VECTORS::every(LANES));
    }
    const auto wanted = static_cast<__mmask16>(low_bits(count));
    _mm512_mask_storeu_epi32(dest, wanted, decode(text, _mm512_permutexvar_epi8(lanes, places)));
}

PSP_VECTOR void widen(wchar_t* dest, size_t chars, const char* text, size_t size)
{
    while (chars != 0) {
        const bool whole = size >= BLOCK;
        const __m512i block =
            whole ? VECTORS::load(text) : _mm512_maskz_loadu_epi8(low_bits(size), text);
        const bool ascii = whole && chars >= BLOCK && VECTORS::signs(block) == 0;
        const size_t step = ascii ? BLOCK - misplaced(dest) : whole ? STRIDE : size;
        size_t count = step;
        if (ascii) {
            widen_ascii(dest, block);
        } else {
            const uint64_t mask = VECTORS::starts(block) & low_bits(step);
            count = std::min(chars, static_cast<size_t>(std::popcount(mask)));
            widen_block(dest, count, block, mask);
        }
        dest += count;
        chars -= count;
        text += step;
        size -= step;
    }
}

} // namespace

constinit const UTF8_VARIANT psp_utf8_avx512{scan, widen};
