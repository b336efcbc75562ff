// Scanning text by vectors, written once for vectors of any size. A file that includes this header
// says first which instructions it is compiled for, as PSP_VECTOR_TARGET.
//
// A vector is looked at in whole: whether each of its bytes may stand behind the three in front of
// it. A character that lacks its last bytes shows in what follows only, so that the end of a text
// is looked at once more. What is left behind the last whole vector, or from damage on, goes to a
// variant with smaller ones, and in the end to the plain scan, which finds the place of the damage.
#pragma once

#include "psp_utf8_scan.h"

#include <algorithm>
#include <array>
#include <bit>

#define PSP_VECTOR [[PSP_VECTOR_TARGET]]
#define PSP_VECTOR_INLINE [[PSP_VECTOR_TARGET, gnu::always_inline]] inline

namespace {

// What may be wrong with a byte and the one before it. Each nibble that decides has a table of the
// kinds of damage that it allows for; what all three allow for is the case.
enum DAMAGE : uint8_t {
    TOO_SHORT = 1,      // no continuation behind a lead
    TOO_LONG = 2,       // a continuation behind ASCII
    OVERLONG_2 = 4,     // C0 or C1
    OVERLONG_3 = 8,     // E0 with less than A0
    SURROGATE = 16,     // ED with A0 or more
    TOO_LARGE = 32,     // F4 or more with 90 or more
    OVERLONG_4 = 64,    // F0 with less than 90; and F5 or more with less than 90
    CONTINUATIONS = 128 // two: damage unless a lead in front of them asks for it
};

// By the high nibble of the byte before.
constexpr std::array<uint8_t, 16> before_high = [] {
    std::array<uint8_t, 16> table{};
    std::fill_n(table.begin(), 8, TOO_LONG);
    std::fill_n(table.begin() + 8, 4, CONTINUATIONS);
    table[0xC] = TOO_SHORT | OVERLONG_2;
    table[0xD] = TOO_SHORT;
    table[0xE] = TOO_SHORT | OVERLONG_3 | SURROGATE;
    table[0xF] = TOO_SHORT | TOO_LARGE | OVERLONG_4;
    return table;
}();

// By its low nibble.
constexpr std::array<uint8_t, 16> before_low = [] {
    std::array<uint8_t, 16> table{};
    for (size_t i = 0; i < 16; ++i) {
        uint32_t kinds = TOO_SHORT | TOO_LONG | CONTINUATIONS;
        kinds |= i < 2 ? OVERLONG_2 : 0;
        kinds |= i == 0 ? OVERLONG_3 | OVERLONG_4 : 0;
        kinds |= i == 0xD ? SURROGATE : 0;
        kinds |= i >= 4 ? TOO_LARGE : 0;
        kinds |= i >= 5 ? OVERLONG_4 : 0;
        table[i] = static_cast<uint8_t>(kinds);
    }
    return table;
}();

// By the high nibble of the byte itself.
constexpr std::array<uint8_t, 16> itself_high = [] {
    std::array<uint8_t, 16> table{};
    table.fill(TOO_SHORT);
    for (size_t i = 8; i < 12; ++i) {
        uint32_t kinds = TOO_LONG | OVERLONG_2 | CONTINUATIONS;
        kinds |= i < 0xA ? OVERLONG_3 : SURROGATE;
        kinds |= i == 8 ? OVERLONG_4 : TOO_LARGE;
        table[i] = static_cast<uint8_t>(kinds);
    }
    return table;
}();

// A class of vectors `V` has `V::BYTES`, the vector itself, with the operators of its bits, and
//     load(text)             that many bytes; they may start anywhere
//     every(byte)            that byte everywhere
//     before<N>(bytes)       the bytes that stand N in front of each, behind NUL
//     shifted(bytes)         each nibble four bits lower; the high ones are anything
//     look_up(table, bytes)  entries of a table by bytes below 16
//     above(bytes, others)   the difference where it is positive, else 0
//     signs(bytes)           the highest bits, the first byte's in the lowest bit
//     starts(bytes)          which bytes are no continuations
//     zeros(bytes)           which bytes are 0
//     others(bytes)          not 0 when a byte is not 0
//     smaller()              the variant that takes what is less than a vector

// Whether some byte of a vector does not fit behind those in front of it.
template <class V>
PSP_VECTOR_INLINE bool damaged(const char* text, bool is_first)
{
    using BYTES = typename V::BYTES;
    const BYTES bytes = V::load(text);
    const BYTES first = is_first ? V::template before<1>(bytes) : V::load(text - 1);
    const BYTES second = is_first ? V::template before<2>(bytes) : V::load(text - 2);
    const BYTES third = is_first ? V::template before<3>(bytes) : V::load(text - 3);
    const BYTES nibble = V::every(0xF);
    const BYTES pairs = V::look_up(before_high, V::shifted(first) & nibble) &
                        V::look_up(before_low, first & nibble) &
                        V::look_up(itself_high, V::shifted(bytes) & nibble);
    // The highest bit: a lead two bytes before has three bytes, or one three bytes before has four.
    const BYTES asked =
        V::above(second, V::every(0xE0 - 0x80)) | V::above(third, V::every(0xF0 - 0x80));
    const BYTES wrong = pairs ^ (asked & V::every(0x80));
    // Zero at the end of FFFE and FFFF, which are EF BF BE and EF BF BF.
    const BYTES character = (second ^ V::every(0xEF)) | (first ^ V::every(0xBF)) |
                            ((bytes & V::every(0xFE)) ^ V::every(0xBE));
    return (V::others(wrong) | V::zeros(character)) != 0;
}

// Bytes at the end of undamaged text that belong to a character which goes on behind it.
inline size_t unfinished(const char* end)
{
    const auto at = [end](int i) { return static_cast<uint8_t>(end[i]); };
    return (at(-1) >= 0xC0 ? 1U : 0U) + (at(-2) >= 0xE0 ? 2U : 0U) + (at(-3) >= 0xF0 ? 3U : 0U);
}

// The run with the text behind it that is less than a vector, in one that reaches back; or as it
// is.
template <class V>
PSP_VECTOR_INLINE UTF8_RUN scan_last(const char* text, UTF8_RUN limit, UTF8_RUN run)
{
    constexpr size_t SIZE = sizeof(typename V::BYTES);
    const size_t left = limit.size - run.size;
    // What the vector's first bytes stand behind is looked at, too: it begins at least 3 later.
    if (run.size < SIZE || left < 3 || left >= SIZE || limit.chars - run.chars < left)
        return run;
    const char* const last = text + limit.size - SIZE;
    if (damaged<V>(last, false))
        return run;
    const auto starts = V::starts(V::load(last)) >> (SIZE - left);
    return {limit.size, run.chars + static_cast<size_t>(std::popcount(starts))};
}

template <class V>
PSP_VECTOR_INLINE UTF8_RUN scan_vectors(const char* text, UTF8_RUN limit)
{
    constexpr size_t SIZE = sizeof(typename V::BYTES);
    UTF8_RUN run{0, 0};
    bool pending = false; // a character may go on behind the run
    while (limit.size - run.size >= SIZE && limit.chars - run.chars >= SIZE) {
        const char* const next = text + run.size;
        const bool ascii = V::signs(V::load(next)) == 0;
        if ((!ascii || pending) && damaged<V>(next, run.size == 0))
            break;
        run.size += SIZE;
        run.chars += ascii ? SIZE : static_cast<size_t>(std::popcount(V::starts(V::load(next))));
        pending = !ascii;
    }
    run = scan_last<V>(text, limit, run);
    if (const size_t cut = run.size != 0 ? unfinished(text + run.size) : 0) {
        run.size -= cut;
        --run.chars;
    }
    const UTF8_RUN rest =
        V::smaller().scan(text + run.size, {limit.size - run.size, limit.chars - run.chars});
    return {run.size + rest.size, run.chars + rest.chars};
}

} // namespace
