// A plain UTF-8 decoder: it looks at one whole piece of text after the other, where the library
// goes byte by byte. Tests hold the library against it.
#pragma once

#include "psp/utf8.h"

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace psptest {

struct DecodedUtf8 {
    std::vector<uint32_t> chars{}; // up to the error, if there was one
    bool failed = false;
};

// The bytes of a code point, by its binary digits.
inline std::string encoded_utf8(uint32_t ch)
{
    const auto byte = [](uint32_t value) { return static_cast<char>(value); };
    if (ch < 0x80)
        return {byte(ch)};
    if (ch < 0x800)
        return {byte(0xC0 + ch / 0x40), byte(0x80 + ch % 0x40)};
    if (ch < 0x10000)
        return {byte(0xE0 + ch / 0x1000), byte(0x80 + ch / 0x40 % 0x40), byte(0x80 + ch % 0x40)};
    return {byte(0xF0 + ch / 0x40000), byte(0x80 + ch / 0x1000 % 0x40),
            byte(0x80 + ch / 0x40 % 0x40), byte(0x80 + ch % 0x40)};
}

inline bool is_character(uint32_t ch)
{
    return ch < 0x110000 && !(ch >= 0xD800 && ch < 0xE000) && ch != 0xFFFE && ch != 0xFFFF;
}

inline DecodedUtf8 decoded_utf8(std::string_view text, PSP_UTF8_ERROR_BEHAVIOR behavior)
{
    DecodedUtf8 result;
    const auto at = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const auto malformed = [&](uint32_t replacement) {
        result.failed = behavior == PSP_UTF8_ERROR_BREAK;
        if (!result.failed)
            result.chars.push_back(replacement);
    };
    for (std::size_t i = 0; i < text.size() && !result.failed;) {
        const uint32_t lead = at(i++);
        if (lead < 0x80) {
            result.chars.push_back(lead);
            continue;
        }
        if (lead < 0xC0 || lead >= 0xF8) { // no sequence starts with it
            malformed('?');
            continue;
        }
        const std::size_t wanted = lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
        uint32_t ch = lead & (0x3F >> wanted);
        std::size_t had = 0;
        while (had < wanted && i < text.size() && at(i) >= 0x80 && at(i) < 0xC0) {
            ch = ch * 0x40 + at(i++) % 0x40;
            had++;
        }
        if (had < wanted) {
            if (i < text.size() && at(i) >= 0xF8)
                i++; // such a byte goes with the sequence that it breaks
            malformed('?');
        } else if (!is_character(ch)) {
            malformed('?');
        } else if (encoded_utf8(ch).size() <= wanted) { // overlong
            malformed(ch);
        } else {
            result.chars.push_back(ch);
        }
    }
    return result;
}

// Every sequence of up to `most` bytes out of those that make a difference, to body(text).
template <class Body>
void for_each_sequence(std::size_t most, Body body)
{
    static constexpr unsigned char bytes[] = {
        0x00, 0x01, 0x3F, 0x41, 0x7F, 0x80, 0x81, 0x8F, 0x90, 0x9F, 0xA0, 0xA9, 0xAF,
        0xBE, 0xBF, 0xC0, 0xC1, 0xC2, 0xC3, 0xDF, 0xE0, 0xE1, 0xE2, 0xEC, 0xED, 0xEE,
        0xEF, 0xF0, 0xF1, 0xF3, 0xF4, 0xF5, 0xF7, 0xF8, 0xFB, 0xFC, 0xFE, 0xFF};
    std::vector<std::string> shorter = {""};
    for (std::size_t length = 1; length <= most; length++) {
        std::vector<std::string> longer;
        for (const std::string& text : shorter) {
            for (const unsigned char byte : bytes) {
                longer.push_back(text + static_cast<char>(byte));
                body(longer.back());
            }
        }
        shorter = std::move(longer);
    }
}

// A text of characters, of pieces of them and of single bytes; `sound` keeps to whole ones.
inline std::string random_utf8(std::mt19937& random, std::size_t pieces, bool sound)
{
    std::string text;
    for (; pieces > 0; pieces--) {
        static constexpr uint32_t ends[] = {0x80, 0x800, 0x10000, 0x110000};
        uint32_t ch;
        do
            ch = 1 + random() % (ends[random() % 4] - 1);
        while (sound && !is_character(ch));
        std::string piece = encoded_utf8(ch);
        switch (sound ? 0 : random() % 12) {
        case 1:
            piece.resize(piece.size() - 1);
            break;
        case 2:
            piece = std::string(1, static_cast<char>(random()));
            break;
        case 3: // overlong, of anything
            piece = {static_cast<char>(0xF0), static_cast<char>(0x80 + ch / 0x1000 % 0x10),
                     static_cast<char>(0x80 + ch / 0x40 % 0x40),
                     static_cast<char>(0x80 + ch % 0x40)};
            break;
        case 4:
            piece = "a run of ASCII";
            break;
        default:
            break;
        }
        text += piece;
    }
    return text;
}

} // namespace psptest
