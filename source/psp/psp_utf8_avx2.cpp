// Sound text on processors with AVX2.
//
// Widening takes 8 bytes at a time: a table tells where in them characters start, one shuffle lays
// the four bytes from each start on into a lane of its own, and the lanes are decoded alike.
#define PSP_VECTOR_TARGET gnu::target("avx2,popcnt")
#include "psp_utf8_block.h"

#include <cstring>

#include <immintrin.h>

namespace {

struct VECTORS {
    using BYTES = __m256i;

    PSP_VECTOR_INLINE static BYTES load(const char* bytes)
    {
        return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(bytes));
    }
    PSP_VECTOR_INLINE static BYTES every(uint32_t byte)
    {
        return _mm256_set1_epi8(static_cast<char>(byte));
    }
    template <int N>
    PSP_VECTOR_INLINE static BYTES before(BYTES bytes)
    {
        const BYTES lower_half = _mm256_permute2x128_si256(bytes, bytes, 0x08);
        return _mm256_alignr_epi8(bytes, lower_half, 16 - N);
    }
    PSP_VECTOR_INLINE static BYTES shifted(BYTES bytes)
    {
        return _mm256_srli_epi16(bytes, 4);
    }
    PSP_VECTOR_INLINE static BYTES look_up(const std::array<uint8_t, 16>& table, BYTES bytes)
    {
        const __m128i half = _mm_loadu_si128(reinterpret_cast<const __m128i*>(table.data()));
        return _mm256_shuffle_epi8(_mm256_broadcastsi128_si256(half), bytes);
    }
    PSP_VECTOR_INLINE static BYTES above(BYTES bytes, BYTES others)
    {
        return _mm256_subs_epu8(bytes, others);
    }
    PSP_VECTOR_INLINE static uint32_t signs(BYTES bytes)
    {
        return static_cast<uint32_t>(_mm256_movemask_epi8(bytes));
    }
    PSP_VECTOR_INLINE static uint32_t starts(BYTES bytes)
    {
        return signs(_mm256_cmpgt_epi8(bytes, every(0xBF)));
    }
    PSP_VECTOR_INLINE static uint32_t zeros(BYTES bytes)
    {
        return signs(_mm256_cmpeq_epi8(bytes, _mm256_setzero_si256()));
    }
    PSP_VECTOR_INLINE static uint32_t others(BYTES bytes)
    {
        return _mm256_testz_si256(bytes, bytes) == 0;
    }
    static const UTF8_VARIANT& smaller()
    {
        return psp_utf8_plain;
    }
};

PSP_VECTOR UTF8_RUN scan(const char* text, UTF8_RUN limit)
{
    return scan_vectors<VECTORS>(text, limit);
}

// ---- Widening ----

constexpr size_t STEP = 8;                 // bytes that are decoded at once, and lanes
constexpr size_t WINDOW = sizeof(__m256i); // bytes that are looked at for ASCII
constexpr size_t REACH = WINDOW + STEP;    // bytes that are read for a window

// Where the bits of a mask are, from the lowest on.
constexpr auto positions = [] {
    std::array<std::array<uint8_t, STEP>, 256> table{};
    for (uint32_t mask = 0; mask < 256; ++mask)
        for (uint32_t bit = 0, n = 0; bit < STEP; ++bit)
            if (mask >> bit & 1)
                table[mask][n++] = static_cast<uint8_t>(bit);
    return table;
}();

// Decodes the characters that start in 8 bytes of sound text where the mask says so.
PSP_VECTOR_INLINE __m256i decode(const char* text, uint8_t mask)
{
    // Four bytes from each start on, the lead the most significant one of its lane.
    uint64_t packed;
    memcpy(&packed, positions[mask].data(), sizeof packed);
    const __m256i spread = _mm256_setr_epi8(0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2, 2, 3, 3, 3, 3, //
                                            4, 4, 4, 4, 5, 5, 5, 5, 6, 6, 6, 6, 7, 7, 7, 7);
    const __m256i leads =
        _mm256_shuffle_epi8(_mm256_set1_epi64x(static_cast<int64_t>(packed)), spread);
    const __m256i bytes = _mm256_shuffle_epi8(
        _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(text))),
        _mm256_add_epi8(leads, _mm256_set1_epi32(0x00010203)));
    // The lead's high nibble tells the length: C to F are lanes 4 to 7 of the tables, ASCII is 0.
    const __m256i kind = _mm256_min_epi32(_mm256_srai_epi32(bytes, 28), _mm256_setzero_si256());
    const __m256i others =
        _mm256_permutevar8x32_epi32(_mm256_setr_epi32(24, 0, 0, 0, 16, 16, 8, 0), kind);
    const __m256i marks = _mm256_permutevar8x32_epi32(
        _mm256_setr_epi32(0, 0, 0, 0, 0x3080, 0x3080, 0xE2080, 0x3C82080), kind);
    // Bytes of other characters out of the way; then each byte by its place, less the marks.
    const __m256i own = _mm256_srlv_epi32(bytes, others);
    const __m256i pairs = _mm256_maddubs_epi16(own, _mm256_set1_epi16(0x4001));
    return _mm256_sub_epi32(_mm256_madd_epi16(pairs, _mm256_set1_epi32(0x10000001)), marks);
}

PSP_VECTOR_INLINE void store(wchar_t* dest, __m256i lanes)
{
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(dest), lanes);
}

PSP_VECTOR_INLINE void store_some(wchar_t* dest, size_t count, __m256i lanes)
{
    const __m256i numbers = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    const auto most = static_cast<int32_t>(std::min(count, STEP));
    const __m256i wanted = _mm256_cmpgt_epi32(_mm256_set1_epi32(most), numbers);
    _mm256_maskstore_epi32(reinterpret_cast<int32_t*>(dest), wanted, lanes);
}

PSP_VECTOR_INLINE void widen_ascii(wchar_t* dest, const char* text)
{
    for (size_t i = 0; i < WINDOW; i += STEP) {
        const __m128i ascii = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(text + i));
        store(dest + i, _mm256_cvtepu8_epi32(ascii));
    }
}

PSP_VECTOR void widen(wchar_t* dest, size_t chars, const char* text, size_t size)
{
    // Whole windows, while there is room for as many characters as a window may have.
    const wchar_t* const end = dest + chars;
    for (; size >= REACH && end - dest >= ptrdiff_t{WINDOW}; text += WINDOW, size -= WINDOW) {
        const __m256i window = VECTORS::load(text);
        if (VECTORS::signs(window) == 0) {
            widen_ascii(dest, text);
            dest += WINDOW;
            continue;
        }
        uint32_t masks = VECTORS::starts(window);
        for (size_t i = 0; i < WINDOW; i += STEP, masks >>= STEP) {
            const auto mask = static_cast<uint8_t>(masks);
            store(dest, decode(text + i, mask));
            dest += std::popcount(mask);
        }
    }
    // The rest by small steps, with something behind it that may be read.
    while (dest != end) {
        std::array<char, sizeof(__m256i)> rest{};
        memcpy(rest.data(), text, std::min(size, rest.size()));
        const auto mask = static_cast<uint8_t>(VECTORS::starts(VECTORS::load(rest.data())));
        const auto left = static_cast<size_t>(end - dest);
        store_some(dest, left, decode(rest.data(), mask));
        dest += std::min(left, static_cast<size_t>(std::popcount(mask)));
        text += STEP;
        size -= std::min(size, STEP);
    }
}

} // namespace

constinit const UTF8_VARIANT psp_utf8_avx2{scan, widen};
