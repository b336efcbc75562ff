// The UTF-16 of text streams: 16-bit units in the file, UTF-8 for the caller.
//
// Both directions go in runs as long as the window of the cache holds whole characters, ASCII a
// vector at a time, and by single characters across its ends. A character that is read alone hands
// out its first byte and pushes the others back; a writer assembles a character in the stream until
// its last byte arrives. Neither side rejects all that is malformed: overlong forms and surrogates
// pass from UTF-8 to UTF-16.

#include <algorithm>
#include <bit>
#include <cstring>

#include <emmintrin.h>

#include "psp/utf8.h"
#include "psp_internal.h"
#include "psp_stream_int.h"

namespace {

constexpr size_t UNIT = sizeof(uint16_t);
constexpr ptrdiff_t VECTOR = sizeof(__m128i);
constexpr ptrdiff_t VECTOR_UNITS = VECTOR / UNIT;
constexpr ptrdiff_t UNIT_TEXT = 3; // bytes of UTF-8 that a unit comes to, at most

inline bool isHighSurrogate(uint32_t unit)
{
    return (unit & 0xFC00) == 0xD800;
}

inline bool isLowSurrogate(uint32_t unit)
{
    return (unit & 0xFC00) == 0xDC00;
}

inline bool isSurrogate(uint32_t unit)
{
    return (unit & 0xF800) == 0xD800;
}

// ---- Reading ----

// A bit for each byte of the units that are no ASCII, a newline or a NUL.
inline uint32_t specialUnits(__m128i units)
{
    const __m128i zero = _mm_setzero_si128();
    const __m128i high = _mm_and_si128(units, _mm_set1_epi16(static_cast<int16_t>(0xFF80)));
    const __m128i ascii = _mm_cmpeq_epi16(high, zero);
    const __m128i newline = _mm_cmpeq_epi16(units, _mm_set1_epi16('\n'));
    const __m128i stop = _mm_or_si128(newline, _mm_cmpeq_epi16(units, zero));
    return static_cast<uint32_t>(_mm_movemask_epi8(_mm_andnot_si128(stop, ascii))) ^ 0xFFFF;
}

// Moves up to eight units, as many as are plain; returns their number.
inline size_t getPlain(const char* from, bool swap, char* to)
{
    __m128i units = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
    if (swap)
        units = _mm_or_si128(_mm_slli_epi16(units, 8), _mm_srli_epi16(units, 8));
    const uint32_t special = specialUnits(units);
    const auto bytes = static_cast<uint64_t>(_mm_cvtsi128_si64(_mm_packus_epi16(units, units)));
    const size_t n =
        special == 0 ? VECTOR_UNITS : static_cast<size_t>(std::countr_zero(special)) / UNIT;
    copy_run(to, reinterpret_cast<const char*>(&bytes), n);
    return n;
}

// ---- Writing ----

inline bool putUnit(PSP_FILE_STREAM stream, uint32_t val)
{
    return fileCachePut(stream->fh, static_cast<uint16_t>(val));
}

// The first byte of a character: its length is in the leading ones, the rest begins the value.
bool beginChar(PSP_FILE_STREAM stream, uint8_t byte)
{
    if (byte < 0x80)
        return putUnit(stream, byte);
    if (byte < 0xC2 || byte > 0xF4)
        return false;
    const bool two = byte < 0xE0;
    const bool three = byte < 0xF0;
    stream->bytesleft = two ? 1 : three ? 2 : 3;
    stream->val = byte & (two ? 0x1FU : three ? 0x0FU : 0x07U);
    return true;
}

bool putChar(PSP_FILE_STREAM stream)
{
    if (stream->val > 0xFFFF) {
        if (!putUnit(stream, 0xD800 | (((stream->val - 0x10000) >> 10) & 0x3FF)))
            return false;
        stream->val = 0xDC00 | (stream->val & 0x3FF);
    }
    return putUnit(stream, stream->val);
}

// Puts ASCII into the window, as much as comes first and has room there; returns how much.
size_t putPlain(PSP_FILE_CACHE_CTX* cache, const char* bytes, size_t len)
{
    const size_t most = std::min(len, fileCacheRoom(cache) / UNIT);
    if (most == 0)
        return 0;
    char* const to = fileCacheAt(cache);
    size_t n = 0;
    for (; most - n >= VECTOR_UNITS; n += VECTOR_UNITS) {
        const __m128i part = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(bytes + n));
        if (_mm_movemask_epi8(part) != 0)
            break;
        _mm_storeu_si128(reinterpret_cast<__m128i*>(to + UNIT * n),
                         _mm_unpacklo_epi8(part, _mm_setzero_si128()));
    }
    for (; n < most && static_cast<uint8_t>(bytes[n]) < 0x80; ++n) {
        const uint16_t unit = static_cast<uint8_t>(bytes[n]);
        memcpy(to + UNIT * n, &unit, UNIT);
    }
    if (n != 0)
        fileCachePutDone(cache, UNIT * n);
    return n;
}

} // namespace

// ---- Reading ----

// Half a unit at the end of the file counts, with the other half 0. The second unit of a pair is
// taken as it lies in the file: it is neither swapped nor checked.
int32_t utf16GetChar(PSP_FILE_STREAM stream)
{
    uint16_t unit = 0;
    if (fileCacheGet(stream->fh, &unit) == 0)
        return END_OF_FILE;
    if (stream->swap)
        unit = __builtin_bswap16(unit);
    if (isLowSurrogate(unit))
        return '.';
    uint32_t val = unit;
    if (isHighSurrogate(unit)) {
        uint16_t low = 0;
        if (fileCacheGet(stream->fh, &low) != sizeof(low))
            return END_OF_FILE;
        val = ((val & 0x3FFU) << 10) + (low & 0x3FFU) + 0x10000;
    }
    uint8_t bytes[4];
    for (uint32_t left = psp_utf8_codes(val, bytes); left > 1; --left)
        pushBack(widened(bytes[left - 1]), stream);
    return widened(bytes[0]);
}

// Leaves surrogates to utf16GetChar, and what may not fit.
char* utf16GetRun(PSP_FILE_STREAM stream, char* pos, const char* end)
{
    const char* const start = fileCacheAt(stream->fh);
    const char* const last = start + fileCacheAhead(stream->fh) / UNIT * UNIT;
    const char* from = start;
    uint16_t unit = 0;
    while (unit != '\n' && from != last && end - pos >= UNIT_TEXT) {
        if (last - from >= VECTOR && end - pos >= VECTOR_UNITS + UNIT_TEXT) {
            const size_t n = getPlain(from, stream->swap != 0, pos);
            from += UNIT * n;
            pos += n;
            if (n == VECTOR_UNITS)
                continue;
        }
        memcpy(&unit, from, UNIT);
        if (stream->swap)
            unit = __builtin_bswap16(unit);
        if (unit == 0 || isSurrogate(unit))
            break;
        pos += psp_utf8_codes(unit, reinterpret_cast<uint8_t*>(pos));
        from += UNIT;
    }
    stream->fh->off += static_cast<size_t>(from - start);
    return pos;
}

// ---- Writing ----

// A byte that does not continue the pending character is refused and leaves it pending.
bool _psp_fputc(uint8_t byte, PSP_FILE_STREAM stream)
{
    if (stream->bytesleft == 0)
        return beginChar(stream, byte);
    if ((byte & 0xC0) != 0x80)
        return false;
    stream->val = (stream->val << 6) | (byte & 0x3FU);
    return --stream->bytesleft != 0 || putChar(stream);
}

bool utf16Put(PSP_FILE_STREAM stream, const char* bytes, size_t len)
{
    for (const char* const end = bytes + len; bytes != end; ++bytes) {
        if (stream->bytesleft == 0)
            bytes += putPlain(stream->fh, bytes, static_cast<size_t>(end - bytes));
        if (bytes == end)
            break;
        if (!_psp_fputc(static_cast<uint8_t>(*bytes), stream))
            return false;
    }
    return true;
}
