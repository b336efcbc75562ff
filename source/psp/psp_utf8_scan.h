// Well-formed text at the speed of the processor: measuring the sound start of a text, and turning
// sound text into wide characters.
//
// A text is sound where every character is whole, in its shortest form and a valid code point. What
// is not is left to the decoder in psputf8.cpp, byte by byte; it goes on here behind the damage.
//
// There is a variant for every processor, one for AVX2 and one for AVX-512. All give the same, down
// to how far they get; the choice is made once.
#pragma once

#include "psp_atomic.h"

#include "psptypes.h"

#include <array>

// A piece of text, or a limit to one.
struct UTF8_RUN {
    size_t size; // bytes
    size_t chars;
};

struct UTF8_VARIANT {
    // The sound start of a text of limit.size bytes, of at most limit.chars characters. It ends
    // where the text or the number of characters does, or in front of a character that is not
    // sound. Nothing behind limit.size is read.
    UTF8_RUN (*scan)(const char* text, UTF8_RUN limit);

    // Stores the first `chars` characters of sound text that holds at least so many in `size`
    // bytes. Nothing behind them is written, nothing behind `size` is read.
    void (*widen)(wchar_t* dest, size_t chars, const char* text, size_t size);
};

extern const UTF8_VARIANT psp_utf8_plain;
extern const UTF8_VARIANT psp_utf8_avx2;
extern const UTF8_VARIANT psp_utf8_avx512;

// All of them, the quickest last, and how many of them the processor has: at least the first.
extern const std::array<const UTF8_VARIANT*, 3> psp_utf8_variants;
size_t psp_utf8_supported();

// What a processor says of itself, and which registers the system saves (the bits of XCR0).
struct UTF8_PROCESSOR {
    uint32_t ecx1; // of leaf 1
    uint32_t ebx7; // of leaf 7
    uint32_t ecx7;
    uint32_t saved;
};

size_t psp_utf8_supported_by(const UTF8_PROCESSOR& processor);

// The variant in use; null until somebody asks. Threads may choose at once: they choose the same.
extern const UTF8_VARIANT* psp_utf8_chosen;
const UTF8_VARIANT* psp_utf8_choose();

inline const UTF8_VARIANT* psp_utf8_variant()
{
    const UTF8_VARIANT* const chosen = relaxed_load(psp_utf8_chosen);
    return chosen != nullptr ? chosen : psp_utf8_choose();
}
