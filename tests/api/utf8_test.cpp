// UTF-8 and wide characters: the encoder over all code points, and the functions that decode beside
// a plain decoder, over short sequences of every kind and long random texts.
#include "support/psp_test.h"
#include "support/utf8_checks.h"

#include "psp/mem.h"
#include "psp/utf8.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csetjmp>
#include <cstring>
#include <cwchar>
#include <random>
#include <string>
#include <vector>

using namespace psptest;

namespace {

constexpr std::size_t failed = PSP_UTF8_FAILED;

// ---- One code point ----

TEST(Utf8Codes, EncodeEveryCodePoint)
{
    for (uint32_t ch = 0; ch < 0x110000; ch++) {
        uint8_t bytes[5] = {0x5A, 0x5A, 0x5A, 0x5A, 0x5A};
        const std::string wanted = encoded_utf8(ch);
        ASSERT_EQ(psp_utf8_codes(ch, bytes), wanted.size()) << ch;
        ASSERT_EQ(psp_utf8_codes(ch, nullptr), wanted.size()) << ch;
        ASSERT_EQ(std::memcmp(bytes, wanted.data(), wanted.size()), 0) << ch;
        ASSERT_EQ(bytes[wanted.size()], 0x5A) << ch;
    }
}

TEST(Utf8Codes, OfTheLimits)
{
    uint8_t bytes[4];
    EXPECT_EQ(psp_utf8_codes(0x10FFFF, bytes), 4u);
    EXPECT_EQ(std::memcmp(bytes, "\xF4\x8F\xBF\xBF", 4), 0);
    EXPECT_EQ(psp_utf8_codes(0xD800, bytes), 3u); // a surrogate is encoded like any other value
    EXPECT_EQ(std::memcmp(bytes, "\xED\xA0\x80", 3), 0);
    EXPECT_EQ(psp_utf8_codes(0xFFFF, bytes), 3u);
    EXPECT_EQ(psp_utf8_codes(0x7F, bytes), 1u);
    EXPECT_EQ(psp_utf8_codes(0x80, bytes), 2u);
    EXPECT_EQ(psp_utf8_codes(0x7FF, bytes), 2u);
    EXPECT_EQ(psp_utf8_codes(0x800, bytes), 3u);
    EXPECT_EQ(psp_utf8_codes(0x10000, bytes), 4u);
}

TEST(Utf8Codes, HaveNoneAboveTheLastCodePoint)
{
    for (const uint32_t ch :
         {0x110000u, 0x110001u, 0x1FFFFFu, 0x200000u, 0x80000000u, UINT32_MAX}) {
        uint8_t bytes[4] = {1, 2, 3, 4};
        EXPECT_EQ(psp_utf8_codes(ch, bytes), 0u);
        EXPECT_EQ(psp_utf8_codes(ch, nullptr), 0u);
        EXPECT_EQ(std::memcmp(bytes, "\1\2\3\4", 4), 0);
    }
}

TEST(Utf8Uchar, FillsTheRoomOrLeavesIt)
{
    for (const uint32_t ch :
         {0x0u, 0x41u, 0xE9u, 0x20ACu, 0xD800u, 0x1F600u, 0x110000u, UINT32_MAX}) {
        const std::string code = ch < 0x110000 ? encoded_utf8(ch) : "";
        for (std::size_t size = 0; size < 12; size++) {
            std::string room(16, 'Z');
            std::string wanted = room;
            if (code.size() <= size)
                wanted.replace(0, size, code + std::string(size - code.size(), '\0'));
            EXPECT_EQ(psp_uchar_to_utf8(ch, reinterpret_cast<uint8_t*>(room.data()), size),
                      code.size());
            EXPECT_EQ(room, wanted) << ch << " into " << size;
        }
    }
    EXPECT_EQ(psp_uchar_to_utf8(0x20AC, nullptr, 0), 3u);
}

// ---- Beside the plain decoder ----

TEST(Utf8Texts, OfUpToThreeBytesAreReadLikeThePlainDecoder)
{
    check_utf8("");
    for_each_sequence(under_tsan ? 2 : 3, [](const std::string& text) {
        if (!::testing::Test::HasFatalFailure())
            check_utf8(text);
    });
}

TEST(Utf8Texts, OfRandomPiecesAreReadLikeThePlainDecoder)
{
    std::mt19937 random(1);
    for (int i = 0; i < 3000 && !HasFatalFailure(); i++)
        check_utf8(random_utf8(random, random() % 24, random() % 4 == 0));
}

TEST(Utf8Texts, OfRandomBytesAreReadLikeThePlainDecoder)
{
    std::mt19937 random(2);
    for (int i = 0; i < 3000 && !HasFatalFailure(); i++) {
        std::string text(random() % 24, '\0');
        for (char& byte : text)
            byte = static_cast<char>(random() % 4 == 0 ? random() : 0x80 + random() % 0x80);
        check_utf8(text);
    }
}

TEST(Utf8Texts, AroundRunsOfAsciiAreReadLikeThePlainDecoder)
{
    for (std::size_t run = 0; run < 36 && !HasFatalFailure(); run++)
        for (const char* piece : {"\xC3\xA9", "\xFF", "\xE2\x82", "\xC0\xAF", "\x80"})
            check_utf8(std::string(run, 'a') + piece + std::string(run % 11, 'b') + piece);
}

TEST(Utf8Texts, TakeEveryValidCodePointAndNoOther)
{
    for (uint32_t ch = 1; ch < 0x120000; ch++) {
        const std::string text = encoded_utf8(ch);
        wchar_t dest[3];
        const std::size_t strict = psp_utf8_to_wchar(dest, text.c_str(), 3, PSP_UTF8_ERROR_BREAK);
        ASSERT_EQ(strict, is_character(ch) ? 2 : failed) << ch;
        ASSERT_EQ(psp_utf8_to_wchar(dest, text.c_str(), 3, PSP_UTF8_ERROR_CONTINUE), 2u) << ch;
        ASSERT_EQ(dest[0], is_character(ch) ? static_cast<wchar_t>(ch) : L'?') << ch;
        ASSERT_EQ(dest[1], L'\0');
    }
}

// ---- By hand ----

std::wstring widened(const std::string& text)
{
    wchar_t dest[40];
    const std::size_t count =
        psp_utf8_to_wchar_len(dest, 40, text.data(), text.size(), PSP_UTF8_ERROR_CONTINUE);
    return count == failed ? L"failed" : std::wstring(dest, count - 1);
}

TEST(Utf8Errors, BecomeOneQuestionMarkEach)
{
    EXPECT_EQ(widened("\xED\xA0\x80"), L"?");              // a surrogate
    EXPECT_EQ(widened("\x41\xE2\x82"), L"A?");             // the end within a character
    EXPECT_EQ(widened("\xE2\x41"), L"?A");                 // a character broken by the next
    EXPECT_EQ(widened("\xE2\x82\xC3\xA9"), L"?\u00E9");    // by the next lead byte
    EXPECT_EQ(widened("\x80\xBF"), L"??");                 // continuations of nothing
    EXPECT_EQ(widened("\xE2\x82\xFFz"), L"?z");            // a byte that breaks and goes along
    EXPECT_EQ(widened("\xFF\xFE"), L"??");                 // bytes that are never right
    EXPECT_EQ(widened("\xF4\x90\x80\x80"), L"?");          // above the last code point
    EXPECT_EQ(widened("\xF7\xBF\xBF\xBF"), L"?");          // likewise
    EXPECT_EQ(widened("\xEF\xBF\xBE\xEF\xBF\xBF"), L"??"); // FFFE and FFFF
    EXPECT_EQ(widened("\xF0\x8D\xA0\x80"), L"?");          // an overlong surrogate
    EXPECT_EQ(widened("\xC3\xC3\xC3"), L"???");
}

TEST(Utf8Errors, AreNotSeenInOverlongFormsWhereErrorsAreReplaced)
{
    EXPECT_EQ(widened("\xC0\xAF"), L"/");
    EXPECT_EQ(widened("\xC1\x81"), L"A");
    EXPECT_EQ(widened("\xE0\x83\xA9"), L"\u00E9");
    EXPECT_EQ(widened("\xF0\x82\x82\xAC"), L"\u20AC");
    EXPECT_EQ(widened("\xC0\x80z"), std::wstring(L"\0z", 2));
    EXPECT_EQ(psp_countUTF8bytes("\xF0\x82\x82\xAC", 4, 0, PSP_UTF8_ERROR_CONTINUE), 3u);
    char dest[4];
    EXPECT_EQ(psp_copyUTF8Chars(dest, 4, "\xF0\x82\x82\xAC", 4, nullptr, PSP_UTF8_ERROR_CONTINUE),
              3u);
    EXPECT_EQ(std::memcmp(dest, "\xE2\x82\xAC", 3), 0);
}

TEST(Utf8Errors, EndStrictWorkWithEachFunctionsOwnResult)
{
    for (const char* text : {"a\xC0\xAF", "a\x80", "a\xE2\x82", "a\xE2z", "a\xED\xA0\x80", "a\xFF",
                             "a\xF4\x90\x80\x80", "a\xEF\xBF\xBF", "a\xC3\xC3\xA9"}) {
        const std::size_t size = std::strlen(text);
        wchar_t dest[10];
        std::size_t copied = 99;
        char bytes[10];
        EXPECT_EQ(psp_countUTF8chars(text, size, PSP_UTF8_ERROR_BREAK), 0u);
        EXPECT_EQ(psp_countUTF8bytes(text, size, 0, PSP_UTF8_ERROR_BREAK), failed);
        EXPECT_EQ(psp_copyUTF8Chars(bytes, 10, text, size, &copied, PSP_UTF8_ERROR_BREAK), failed);
        EXPECT_EQ(copied, 99u);
        EXPECT_EQ(psp_utf8_to_wchar(dest, text, 10, PSP_UTF8_ERROR_BREAK), failed);
        EXPECT_EQ(psp_utf8_to_wchar(nullptr, text, 0, PSP_UTF8_ERROR_BREAK), failed);
        EXPECT_EQ(psp_utf8_to_wchar_len(dest, 10, text, size, PSP_UTF8_ERROR_BREAK), failed);
    }
}

TEST(Utf8Copy, TakesWholeCharactersOnly)
{
    char dest[4] = "ZZZ";
    std::size_t copied = 0;
    EXPECT_EQ(psp_copyUTF8Chars(dest, 2, "a\xC3\xA9", 3, &copied, PSP_UTF8_ERROR_BREAK), 1u);
    EXPECT_EQ(copied, 1u);
    EXPECT_STREQ(dest, "aZZ"); // and no NUL behind them
}

TEST(Utf8Copy, DoesNotGoOnBehindACharacterThatDidNotFit)
{
    char dest[4] = "ZZZ";
    std::size_t copied = 0;
    EXPECT_EQ(psp_copyUTF8Chars(dest, 2, "a\xC3\xA9z", 4, &copied, PSP_UTF8_ERROR_BREAK), 1u);
    EXPECT_EQ(copied, 1u);
    EXPECT_STREQ(dest, "aZZ");
}

TEST(Utf8Copy, ChecksWhatDoesNotFitAsWell)
{
    char dest[2];
    std::size_t copied = 99;
    EXPECT_EQ(psp_copyUTF8Chars(dest, 2, "abcd\xFF", 5, &copied, PSP_UTF8_ERROR_BREAK), failed);
    EXPECT_EQ(copied, 99u);
    EXPECT_EQ(psp_copyUTF8Chars(dest, 2, "abcd\xFF", 5, &copied, PSP_UTF8_ERROR_CONTINUE), 2u);
    EXPECT_EQ(copied, 2u);
}

TEST(Utf8Count, StopsAtTheCharacterAskedFor)
{
    EXPECT_EQ(psp_countUTF8bytes("\xC3\xA9\xE2\x82\xACz\xFF", 7, 2, PSP_UTF8_ERROR_BREAK), 5u);
    EXPECT_EQ(psp_countUTF8bytes("\xC3\xA9\xE2\x82\xACz\xFF", 7, 3, PSP_UTF8_ERROR_BREAK), 6u);
    EXPECT_EQ(psp_countUTF8bytes("\xC3\xA9\xE2\x82\xACz\xFF", 7, 4, PSP_UTF8_ERROR_BREAK), failed);
    EXPECT_EQ(psp_countUTF8bytes("\xC3\xA9z", 3, SIZE_MAX, PSP_UTF8_ERROR_BREAK), 3u);
}

TEST(Utf8Count, OfNothingIsNothing)
{
    EXPECT_EQ(psp_countUTF8bytes("", 0, 0, PSP_UTF8_ERROR_BREAK), 0u);
    EXPECT_EQ(psp_countUTF8bytes("x", 0, 5, PSP_UTF8_ERROR_BREAK), 0u);
    EXPECT_EQ(psp_countUTF8chars("", 0, PSP_UTF8_ERROR_BREAK), 0u);
    EXPECT_EQ(psp_countUTF8chars("a\0b", 3, PSP_UTF8_ERROR_BREAK), 3u);
}

TEST(Utf8Wide, CountsTheTerminator)
{
    EXPECT_EQ(psp_utf8_to_wchar(nullptr, "abc", 0, PSP_UTF8_ERROR_BREAK), 4u);
    EXPECT_EQ(psp_utf8_to_wchar(nullptr, "", 0, PSP_UTF8_ERROR_BREAK), 1u);
    EXPECT_EQ(psp_utf8_to_wchar_len(nullptr, 0, "a\0b", 3, PSP_UTF8_ERROR_BREAK), 4u);
    wchar_t dest[4] = {L'Z', L'Z', L'Z', L'Z'};
    EXPECT_EQ(psp_utf8_to_wchar(dest, "abc", 1, PSP_UTF8_ERROR_BREAK), 1u);
    EXPECT_EQ(dest[0], L'\0');
    EXPECT_EQ(dest[1], L'Z');
    EXPECT_EQ(psp_utf8_to_wchar_len(dest, 4, "a\0b", 3, PSP_UTF8_ERROR_BREAK), 4u);
    EXPECT_EQ(std::wmemcmp(dest, L"a\0b", 4), 0);
}

TEST(Utf8Wide, WithoutRoomStoresNothing)
{
    wchar_t dest = L'Z';
    EXPECT_EQ(psp_utf8_to_wchar(&dest, "abc", 0, PSP_UTF8_ERROR_BREAK), 0u);
    EXPECT_EQ(psp_utf8_to_wchar_len(&dest, 0, "\xE2\x82\xAC", 3, PSP_UTF8_ERROR_BREAK), 0u);
    EXPECT_EQ(dest, L'Z');
}

TEST(Utf8Wide, WorksBeforeTheStart)
{
    ASSERT_EQ(psp_inited, 0);
    EXPECT_EQ(widened("\xE2\x82\xAC"), L"\u20AC");
    EXPECT_EQ(psp_convToWchar("abc", PSP_UTF8_ERROR_BREAK, PSP_THREAD_TAG), nullptr);
    wchar_t* text = nullptr;
    EXPECT_EQ(psp_convToWchar_rc("abc", PSP_UTF8_ERROR_BREAK, &text, PSP_THREAD_TAG), eNOMEMORY);
}

// ---- New wide strings ----

class WideString : public PspTest {};

TEST_F(WideString, HoldsTheWholeText)
{
    std::mt19937 random(3);
    for (const PSP_MEMTAG tag : {PSP_THREAD_TAG, PSP_GLOBAL_TAG}) {
        for (int i = 0; i < 300; i++) {
            const std::string text = random_utf8(random, random() % 100, false);
            for (const PSP_UTF8_ERROR_BEHAVIOR behavior : error_behaviors) {
                const DecodedUtf8 decoded = decoded_utf8(text.c_str(), behavior);
                wchar_t* string = psp_convToWchar(text.c_str(), behavior, tag);
                wchar_t* twin = reinterpret_cast<wchar_t*>(8);
                ASSERT_EQ(psp_convToWchar_rc(text.c_str(), behavior, &twin, tag),
                          decoded.failed ? eNOMEMORY : sOKAY);
                ASSERT_EQ(string == nullptr, decoded.failed);
                ASSERT_EQ(twin == nullptr, decoded.failed);
                if (decoded.failed)
                    continue;
                std::vector<wchar_t> wanted(decoded.chars.begin(), decoded.chars.end());
                wanted.push_back(0);
                EXPECT_EQ(std::wmemcmp(string, wanted.data(), wanted.size()), 0);
                EXPECT_EQ(std::wmemcmp(twin, wanted.data(), wanted.size()), 0);
                psp_freeMem(string, tag, __FILE__, __LINE__);
                psp_freeMem(twin, tag, __FILE__, __LINE__);
            }
        }
    }
}

TEST_F(WideString, OfNoTagIsNone)
{
    wchar_t* text = reinterpret_cast<wchar_t*>(8);
    EXPECT_EQ(psp_convToWchar("abc", PSP_UTF8_ERROR_BREAK, nullptr), nullptr);
    EXPECT_EQ(psp_convToWchar_rc("abc", PSP_UTF8_ERROR_BREAK, &text, nullptr), eNOMEMORY);
    EXPECT_EQ(text, nullptr);
}

TEST_F(WideString, OfMalformedTextDoesNotJump)
{
    jmp_buf jump;
    PSP_MEMTAG tag = psp_createTagEx(&jump, 0, BLOCK_ALLOCATOR, nullptr, nullptr, nullptr, 0);
    ASSERT_NE(tag, nullptr);
    if (setjmp(jump) == 0) {
        EXPECT_EQ(psp_convToWchar("a\xFF", PSP_UTF8_ERROR_BREAK, tag), nullptr);
        wchar_t* text = nullptr;
        EXPECT_EQ(psp_convToWchar_rc("a\xFF", PSP_UTF8_ERROR_BREAK, &text, tag), eNOMEMORY);
        EXPECT_EQ(psp_convToWchar_rc("a\xFF", PSP_UTF8_ERROR_CONTINUE, &text, tag), sOKAY);
        EXPECT_STREQ(text, L"a?");
    } else {
        ADD_FAILURE() << "jumped";
    }
    psp_freeTagMem(tag, ZYN_TRUE, nullptr, 0);
}

} // namespace
