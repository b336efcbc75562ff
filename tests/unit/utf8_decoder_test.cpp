// The streaming decoder between callbacks: what each byte leads to, how either side ends the work,
// and its two input functions. The expected code points come from a plain decoder.
#include "support/psp_test.h"
#include "support/utf8_model.h"

#include "psp_internal.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

using namespace psptest;

namespace {

constexpr PSP_UTF8_ERROR_BEHAVIOR both[] = {PSP_UTF8_ERROR_BREAK, PSP_UTF8_ERROR_CONTINUE};

// Bytes to give, and the code behind them.
struct Source {
    std::string bytes;
    ZYN_RETCODE end = eEOD;
    std::size_t given = 0;
    std::size_t calls = 0;

    static ZYN_RETCODE give(ZYN_INPUT_CTX ctx, uint32_t* ch)
    {
        auto& self = *static_cast<Source*>(ctx);
        self.calls++;
        if (self.given == self.bytes.size())
            return self.end;
        *ch = static_cast<unsigned char>(self.bytes[self.given++]);
        return sOKAY;
    }
};

// Code points taken, one of them answered with another code, or all.
struct Target {
    std::vector<uint32_t> chars{};
    std::size_t special = SIZE_MAX; // number of the call, from 0
    ZYN_RETCODE code = sOKAY;
    bool always = false;

    static ZYN_RETCODE take(ZYN_OUTPUT_CTX ctx, uint32_t ch)
    {
        auto& self = *static_cast<Target*>(ctx);
        self.chars.push_back(ch);
        return self.always || self.chars.size() - 1 == self.special ? self.code : sOKAY;
    }
};

ZYN_RETCODE decode(Source& source, Target& target, PSP_UTF8_ERROR_BEHAVIOR behavior)
{
    return psp_processInput(Source::give, &source, Target::take, &target, behavior);
}

void check(const std::string& text)
{
    for (const PSP_UTF8_ERROR_BEHAVIOR behavior : both) {
        const DecodedUtf8 wanted = decoded_utf8(text, behavior);
        Source source{text};
        Target target;
        ASSERT_EQ(decode(source, target, behavior), wanted.failed ? eINVUNICODE : sOKAY);
        ASSERT_EQ(target.chars, wanted.chars);
    }
}

TEST(Utf8Decoder, ReadsEverySequenceOfUpToThreeBytesLikeThePlainDecoder)
{
    check("");
    for_each_sequence(under_tsan ? 2 : 3, [](const std::string& text) {
        if (!::testing::Test::HasFatalFailure())
            check(text);
    });
}

TEST(Utf8Decoder, ReadsRandomTextsLikeThePlainDecoder)
{
    std::mt19937 random(1);
    for (int i = 0; i < 20000 && !HasFatalFailure(); i++)
        check(random_utf8(random, random() % 12, random() % 4 == 0));
}

TEST(Utf8Decoder, HandsEachCodePointOnAsSoonAsItIsWhole)
{
    Source source{"\xE2\x82\xACz"};
    Target target{.special = 0, .code = sNOTFOUND};
    EXPECT_EQ(decode(source, target, PSP_UTF8_ERROR_BREAK), sOKAY);
    EXPECT_EQ(source.given, 3u);
    EXPECT_EQ(target.chars, std::vector<uint32_t>{0x20AC});
}

TEST(Utf8Decoder, StopsAtTheFirstErrorInStrictWork)
{
    struct {
        const char* bytes;
        std::size_t looked_at; // until the error shows
    } const rows[] = {
        {"\xFFzz", 1},
        {"\x80zz", 1},
        {"\xC3zz", 2},
        {"\xE2\x82zz", 3},
        {"\xC0\x80zz", 2},
        {"\xED\xA0\x80zz", 3},
        {"\xC3\xC3\xA9z", 2},
        {"\xF7\xBF\xBF\xBFzz", 4},
        {"\xF0\x80\x80\x80z", 4},
        {"\xE2\xFFz", 2},
    };
    for (const auto& row : rows) {
        Source source{row.bytes};
        Target target;
        EXPECT_EQ(decode(source, target, PSP_UTF8_ERROR_BREAK), eINVUNICODE);
        EXPECT_EQ(source.given, row.looked_at);
        EXPECT_TRUE(target.chars.empty());
    }
}

// ---- Results of the output ----

TEST(Utf8DecoderOutput, EndsTheWorkWithSuccessByNotFound)
{
    const std::string text = "a\xC3\xA9\xFF\xE2\x41\xC0\xAF\xF0\x9F\x98\x80\xE2\x82";
    const std::vector<uint32_t> all = decoded_utf8(text, PSP_UTF8_ERROR_CONTINUE).chars;
    ASSERT_EQ(all, (std::vector<uint32_t>{'a', 0xE9, '?', '?', 'A', '/', 0x1F600, '?'}));
    for (std::size_t n = 0; n < all.size(); n++) {
        Source source{text};
        Target target{.special = n, .code = sNOTFOUND};
        EXPECT_EQ(decode(source, target, PSP_UTF8_ERROR_CONTINUE), sOKAY);
        EXPECT_EQ(target.chars.size(), n + 1);
    }
}

TEST(Utf8DecoderOutput, EndsTheWorkWithAnyOtherCode)
{
    const std::string text = "a\xC3\xA9\xFF\xE2\x41\xC0\xAF\xF0\x9F\x98\x80\xE2\x82";
    for (const ZYN_RETCODE code : {+eBADWRITE, +eEOD, +eINVUNICODE, +sDUPLICATE, 1, -1}) {
        for (std::size_t n = 0; n < 8; n++) {
            Source source{text};
            Target target{.special = n, .code = code};
            EXPECT_EQ(decode(source, target, PSP_UTF8_ERROR_CONTINUE), code);
            EXPECT_EQ(target.chars.size(), n + 1);
        }
    }
}

TEST(Utf8DecoderOutput, GoesOnByNeedData)
{
    const std::string text = "a\xC3\xA9\xFFz\xE2\x41\xC0\xAF\xF0\x9F\x98\x80";
    Source source{text};
    Target target{.code = sNEEDDATA, .always = true};
    EXPECT_EQ(decode(source, target, PSP_UTF8_ERROR_CONTINUE), sOKAY);
    EXPECT_EQ(target.chars, decoded_utf8(text, PSP_UTF8_ERROR_CONTINUE).chars);
    Source strict{"\xE2\x82\xACz"};
    Target of_strict{.code = sNEEDDATA, .always = true};
    EXPECT_EQ(decode(strict, of_strict, PSP_UTF8_ERROR_BREAK), sOKAY);
    EXPECT_EQ(of_strict.chars, (std::vector<uint32_t>{0x20AC, 'z'}));
}

TEST(Utf8DecoderOutput, OfTheLastQuestionMarkIsTheResult)
{
    for (const ZYN_RETCODE code : {+eBADWRITE, +sNEEDDATA, 1}) {
        Source source{"a\xE2\x82"};
        Target target{.special = 1, .code = code};
        EXPECT_EQ(decode(source, target, PSP_UTF8_ERROR_CONTINUE), code);
        EXPECT_EQ(target.chars, (std::vector<uint32_t>{'a', '?'}));
    }
}

// ---- Results of the input ----

TEST(Utf8DecoderInput, EndsTheWorkWithItsCode)
{
    for (const PSP_UTF8_ERROR_BEHAVIOR behavior : both) {
        for (const char* text : {"", "a", "a\xE2\x82"}) {
            for (const ZYN_RETCODE code : {+eBADREAD, +eINVVARINT, +sTIMEOUT, +sNEEDDATA, 1}) {
                Source source{text, code};
                Target target;
                EXPECT_EQ(decode(source, target, behavior), code);
                EXPECT_EQ(target.chars.size(), *text == '\0' ? 0u : 1u); // no '?' for the rest
            }
            Source source{text, sNOTFOUND};
            Target target;
            EXPECT_EQ(decode(source, target, behavior), sOKAY);
        }
    }
}

TEST(Utf8DecoderInput, IsNotAskedAgainBehindItsEnd)
{
    Source source{"ab\xC3"};
    Target target;
    EXPECT_EQ(decode(source, target, PSP_UTF8_ERROR_CONTINUE), sOKAY);
    EXPECT_EQ(source.calls, 4u);
}

TEST(Utf8DecoderInput, WithinACharacterIsAnError)
{
    for (const char* text : {"\xC3", "\xE2", "\xE2\x82", "\xF0", "\xF0\x9F", "\xF0\x9F\x98"}) {
        Source source{text};
        Target target;
        EXPECT_EQ(decode(source, target, PSP_UTF8_ERROR_BREAK), eINVUNICODE);
        EXPECT_TRUE(target.chars.empty());
        Source again{text};
        EXPECT_EQ(decode(again, target, PSP_UTF8_ERROR_CONTINUE), sOKAY);
        EXPECT_EQ(target.chars, std::vector<uint32_t>{'?'});
    }
}

// ---- The input functions ----

TEST(Utf8BufferInput, DeliversUnsignedBytesUpToTheSize)
{
    const char bytes[] = {'a', '\xE9', '\0', '\xFF'};
    BUFFER_INPUT_CTX ctx{bytes, 0, 3};
    uint32_t ch = 99;
    EXPECT_EQ(bufferInputFcn(&ctx, &ch), sOKAY);
    EXPECT_EQ(ch, uint32_t{'a'});
    EXPECT_EQ(bufferInputFcn(&ctx, &ch), sOKAY);
    EXPECT_EQ(ch, 0xE9u);
    EXPECT_EQ(bufferInputFcn(&ctx, &ch), sOKAY);
    EXPECT_EQ(ch, 0u);
    EXPECT_EQ(ctx.pos, 3u);
    EXPECT_EQ(bufferInputFcn(&ctx, &ch), eEOD);
    EXPECT_EQ(bufferInputFcn(&ctx, &ch), eEOD);
    EXPECT_EQ(ctx.pos, 3u);
    BUFFER_INPUT_CTX empty{nullptr, 0, 0};
    EXPECT_EQ(bufferInputFcn(&empty, &ch), eEOD);
}

TEST(Utf8StringInput, DeliversUnsignedBytesUpToTheNul)
{
    STRING_INPUT_CTX ctx{"a\xFF\0b", 0};
    uint32_t ch = 99;
    EXPECT_EQ(stringInputFcn(&ctx, &ch), sOKAY);
    EXPECT_EQ(ch, uint32_t{'a'});
    EXPECT_EQ(stringInputFcn(&ctx, &ch), sOKAY);
    EXPECT_EQ(ch, 0xFFu);
    EXPECT_EQ(stringInputFcn(&ctx, &ch), eEOD);
    EXPECT_EQ(stringInputFcn(&ctx, &ch), eEOD);
    EXPECT_EQ(ctx.pos, 2u);
}

TEST(Utf8Decoder, RunsOverBothInputFunctions)
{
    const std::string text = "a\xC3\xA9\xE2z";
    BUFFER_INPUT_CTX buffer{text.data(), 0, text.size()};
    STRING_INPUT_CTX string{text.c_str(), 0};
    Target first, second;
    EXPECT_EQ(
        psp_processInput(bufferInputFcn, &buffer, Target::take, &first, PSP_UTF8_ERROR_CONTINUE),
        sOKAY);
    EXPECT_EQ(
        psp_processInput(stringInputFcn, &string, Target::take, &second, PSP_UTF8_ERROR_CONTINUE),
        sOKAY);
    EXPECT_EQ(first.chars, (std::vector<uint32_t>{'a', 0xE9, '?', 'z'}));
    EXPECT_EQ(second.chars, first.chars);
}

} // namespace
