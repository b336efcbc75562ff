// Sound text on every processor: ASCII by 16 bytes, other characters one by one. And the choice of
// the variant.
#include "psp_utf8_scan.h"

#include <algorithm>
#include <bit>

#include <cpuid.h>
#include <emmintrin.h>

namespace {

constexpr size_t BLOCK = sizeof(__m128i);

struct CHARACTER {
    uint32_t value;
    uint32_t size; // 0: it is not sound
};

bool continues(uint8_t byte)
{
    return (byte & 0xC0) == 0x80;
}

// The character other than ASCII at the start of a text of `size` bytes, at least 1.
CHARACTER character(const char* text, size_t size)
{
    const auto* const bytes = reinterpret_cast<const uint8_t*>(text);
    const uint32_t lead = bytes[0];
    if (lead < 0xC2 || size < 2 || !continues(bytes[1]))
        return {0, 0};
    uint32_t value = bytes[1] & 0x3F;
    if (lead < 0xE0)
        return {(lead & 0x1F) << 6 | value, 2};
    if (size < 3 || !continues(bytes[2]))
        return {0, 0};
    value = value << 6 | (bytes[2] & 0x3F);
    if (lead < 0xF0) {
        value |= (lead & 0xF) << 12;
        const bool valid = value >= 0x800 && (value < 0xD800 || value >= 0xE000) && value < 0xFFFE;
        return {value, valid ? 3U : 0U};
    }
    if (lead > 0xF4 || size < 4 || !continues(bytes[3]))
        return {0, 0};
    value = (lead & 7) << 18 | value << 6 | (bytes[3] & 0x3F);
    return {value, value >= 0x10000 && value < 0x110000 ? 4U : 0U};
}

__m128i load(const char* text)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(text));
}

// Which of the 16 bytes at `text` are not ASCII, the first one in the lowest bit.
uint32_t others(const char* text)
{
    return static_cast<uint32_t>(_mm_movemask_epi8(load(text)));
}

// Number of ASCII characters that a text starts with.
size_t ascii_start(const char* text, size_t size)
{
    size_t n = 0;
    for (; size - n >= BLOCK; n += BLOCK)
        if (const uint32_t mask = others(text + n))
            return n + static_cast<size_t>(std::countr_zero(mask));
    while (n < size && static_cast<signed char>(text[n]) >= 0)
        ++n;
    return n;
}

UTF8_RUN scan(const char* text, UTF8_RUN limit)
{
    UTF8_RUN run{0, 0};
    while (run.size < limit.size && run.chars < limit.chars) {
        const size_t most = std::min(limit.size - run.size, limit.chars - run.chars);
        const size_t ascii = ascii_start(text + run.size, most);
        run.size += ascii;
        run.chars += ascii;
        while (run.size < limit.size && run.chars < limit.chars &&
               static_cast<signed char>(text[run.size]) < 0) {
            const uint32_t size = character(text + run.size, limit.size - run.size).size;
            if (size == 0)
                return run;
            run.size += size;
            ++run.chars;
        }
    }
    return run;
}

void store_wide(wchar_t* dest, __m128i value)
{
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dest), value);
}

void widen_block(wchar_t* dest, const char* text)
{
    const __m128i zero = _mm_setzero_si128();
    const __m128i low = _mm_unpacklo_epi8(load(text), zero);
    const __m128i high = _mm_unpackhi_epi8(load(text), zero);
    store_wide(dest, _mm_unpacklo_epi16(low, zero));
    store_wide(dest + 4, _mm_unpackhi_epi16(low, zero));
    store_wide(dest + 8, _mm_unpacklo_epi16(high, zero));
    store_wide(dest + 12, _mm_unpackhi_epi16(high, zero));
}

void widen(wchar_t* dest, size_t chars, const char* text, size_t size)
{
    const char* const text_end = text + size;
    const wchar_t* const end = dest + chars;
    while (dest != end) {
        const char* const other = text + ascii_start(text, static_cast<size_t>(end - dest));
        for (; other - text >= ptrdiff_t{BLOCK}; text += BLOCK, dest += BLOCK)
            widen_block(dest, text);
        while (text != other)
            *dest++ = *text++;
        while (dest != end && static_cast<signed char>(*text) < 0) {
            const CHARACTER next = character(text, static_cast<size_t>(text_end - text));
            *dest++ = static_cast<wchar_t>(next.value);
            text += next.size;
        }
    }
}

} // namespace

constinit const UTF8_VARIANT psp_utf8_plain{scan, widen};

// ---- The choice ----

constinit const std::array<const UTF8_VARIANT*, 3> psp_utf8_variants{
    &psp_utf8_plain, &psp_utf8_avx2, &psp_utf8_avx512};

constinit const UTF8_VARIANT* psp_utf8_chosen = nullptr;

size_t psp_utf8_supported_by(const UTF8_PROCESSOR& processor)
{
    constexpr uint32_t base = bit_OSXSAVE | bit_AVX | bit_POPCNT;
    constexpr uint32_t avx_registers = 0x06; // SSE and AVX
    constexpr uint32_t avx512 = bit_AVX512F | bit_AVX512BW;
    constexpr uint32_t avx512_bytes = bit_AVX512VBMI | bit_AVX512VBMI2;
    constexpr uint32_t avx512_registers = 0xE0;
    const auto has = [](uint32_t bits, uint32_t wanted) { return (bits & wanted) == wanted; };
    if (!has(processor.ecx1, base) || !has(processor.saved, avx_registers) ||
        !has(processor.ebx7, bit_AVX2))
        return 1;
    const bool wide = has(processor.saved, avx512_registers) && has(processor.ebx7, avx512) &&
                      has(processor.ecx7, avx512_bytes);
    return wide ? 3 : 2;
}

static uint32_t saved_registers()
{
    uint32_t low, high;
    __asm__("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
    return low;
}

// The processor is asked here: the compiler's support library would ask it all there is to know
// whenever a program starts.
size_t psp_utf8_supported()
{
    UTF8_PROCESSOR processor{};
    uint32_t eax, ebx, edx;
    __get_cpuid(1, &eax, &ebx, &processor.ecx1, &edx);
    __get_cpuid_count(7, 0, &eax, &processor.ebx7, &processor.ecx7, &edx);
    processor.saved = (processor.ecx1 & bit_OSXSAVE) != 0 ? saved_registers() : 0;
    return psp_utf8_supported_by(processor);
}

const UTF8_VARIANT* psp_utf8_choose()
{
    const UTF8_VARIANT* const chosen = psp_utf8_variants[psp_utf8_supported() - 1];
    relaxed_store(psp_utf8_chosen, chosen);
    return chosen;
}
