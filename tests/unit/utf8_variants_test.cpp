// Sound text in every variant that the processor has: how far a scan gets, what widening stores,
// and the public functions on top of each. What is sound comes from a table of ranges.
#include "support/guarded.h"
#include "support/psp_test.h"
#include "support/utf8_checks.h"

#include "psp_utf8_scan.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace psptest;

namespace {

// ---- What is sound ----

// Well-formed characters of more than one byte, by the ranges of their first two bytes.
struct Form {
    unsigned lead_from, lead_to, second_from, second_to;
    std::size_t size;
};

constexpr Form forms[] = {
    {0xC2, 0xDF, 0x80, 0xBF, 2}, {0xE0, 0xE0, 0xA0, 0xBF, 3}, {0xE1, 0xEC, 0x80, 0xBF, 3},
    {0xED, 0xED, 0x80, 0x9F, 3}, {0xEE, 0xEF, 0x80, 0xBF, 3}, {0xF0, 0xF0, 0x90, 0xBF, 4},
    {0xF1, 0xF3, 0x80, 0xBF, 4}, {0xF4, 0xF4, 0x80, 0x8F, 4},
};

// Length of the sound character at the start of a text, or 0.
std::size_t sound_character(std::string_view text)
{
    const auto at = [text](std::size_t i) {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
    };
    if (text.empty() || at(0) < 0x80)
        return text.empty() ? 0 : 1;
    for (const Form& form : forms) {
        if (at(0) < form.lead_from || at(0) > form.lead_to)
            continue;
        bool sound = at(1) >= form.second_from && at(1) <= form.second_to;
        for (std::size_t i = 2; i < form.size; i++)
            sound = sound && at(i) >= 0x80 && at(i) <= 0xBF;
        const bool beyond = at(0) == 0xEF && at(1) == 0xBF && at(2) >= 0xBE; // FFFE and FFFF
        return sound && !beyond ? form.size : 0;
    }
    return 0;
}

UTF8_RUN sound_start(std::string_view text, std::size_t chars)
{
    UTF8_RUN run{0, 0};
    while (run.chars < chars) {
        const std::size_t size = sound_character(text.substr(run.size));
        if (size == 0)
            break;
        run.size += size;
        run.chars++;
    }
    return run;
}

// ---- Texts ----

// Characters of each length, and all mixed.
const char* const scripts[] = {"abcdefghij", "\xC3\xA9\xDF\xBF\xC2\x80",
                               "\xE2\x82\xAC\xEF\xBF\xBD\xED\x9F\xBF\xE0\xA0\x80\xEE\x80\x80",
                               "\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF\xF0\x90\x80\x80",
                               "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80zz"};

// Characters of a script, at least so many bytes; the first `skip` ones left out.
std::string text_of(std::string script, std::size_t size, std::size_t skip = 0)
{
    for (; skip > 0; skip--) {
        const std::size_t first = sound_character(script);
        script = script.substr(first) + script.substr(0, first);
    }
    std::string text;
    while (text.size() < size)
        text += script;
    while (sound_start(text, SIZE_MAX).size > size + 3)
        text.resize(text.size() - 1);
    text.resize(sound_start(text, SIZE_MAX).size);
    return text;
}

// Sound text of runs of each length of character, some long, some short.
std::string random_sound(std::mt19937& random, std::size_t size)
{
    static constexpr uint32_t ends[] = {0x80, 0x800, 0x10000, 0x110000};
    std::string text;
    while (text.size() < size) {
        const uint32_t end = ends[random() % 4];
        for (std::size_t n = 1 + random() % (random() % 4 == 0 ? 80 : 4); n > 0;) {
            const uint32_t ch = 1 + random() % (end - 1);
            if (!is_character(ch))
                continue;
            text += encoded_utf8(ch);
            n--;
        }
    }
    return text;
}

class Utf8Variant : public ::testing::TestWithParam<std::size_t> {
  protected:
    void SetUp() override
    {
        if (GetParam() >= psp_utf8_supported())
            GTEST_SKIP() << "the processor does not have it";
        psp_utf8_chosen = &variant();
    }
    void TearDown() override
    {
        psp_utf8_chosen = nullptr;
    }

    const UTF8_VARIANT& variant() const
    {
        return *psp_utf8_variants[GetParam()];
    }

    // The text ends where reading ends.
    void check_scan(const std::string& text, std::size_t chars = SIZE_MAX)
    {
        const UTF8_RUN wanted = sound_start(text, chars);
        const UTF8_RUN run = variant().scan(room_.place(text), {text.size(), chars});
        ASSERT_EQ(run.size, wanted.size) << ::testing::PrintToString(text) << " up to " << chars;
        ASSERT_EQ(run.chars, wanted.chars) << ::testing::PrintToString(text) << " up to " << chars;
    }

    // The destination ends where writing ends, and has something behind what is stored.
    void check_widen(const std::string& text, std::size_t chars, std::size_t behind = 0)
    {
        const std::vector<uint32_t> all = decoded_utf8(text, PSP_UTF8_ERROR_BREAK).chars;
        std::wstring wanted(all.begin(), all.end());
        wanted.resize(chars);
        wanted.resize(chars + behind, L'Z');
        const std::wstring blank(wanted.size(), L'Z');
        const std::size_t bytes = wanted.size() * sizeof(wchar_t);
        auto* const dest = reinterpret_cast<wchar_t*>(
            const_cast<char*>(dest_.place({reinterpret_cast<const char*>(blank.data()), bytes})));
        variant().widen(dest, chars, room_.place(text), text.size());
        ASSERT_EQ(std::wstring(dest, wanted.size()), wanted) << ::testing::PrintToString(text);
    }

  private:
    GuardedRoom room_{4096};
    GuardedRoom dest_{4 * 4096};
};

std::string name_of(const ::testing::TestParamInfo<std::size_t>& info)
{
    return std::array{"Plain", "Avx2", "Avx512"}[info.param];
}

INSTANTIATE_TEST_SUITE_P(All, Utf8Variant, ::testing::Range<std::size_t>(0, 3), name_of);

// ---- Scanning ----

TEST_P(Utf8Variant, ScansSoundTextOfEveryLengthToItsEnd)
{
    for (const char* script : scripts)
        for (std::size_t size = 0; size < 300 && !HasFatalFailure(); size++)
            for (std::size_t skip = 0; skip < 3; skip++)
                check_scan(text_of(script, size, skip));
}

TEST_P(Utf8Variant, ScansUpToACharacterThatTheTextEndsInside)
{
    for (const char* script : scripts) {
        const std::string text = text_of(script, 280);
        for (std::size_t size = 0; size < text.size() && !HasFatalFailure(); size++)
            check_scan(text.substr(0, size));
    }
}

TEST_P(Utf8Variant, ScansAsManyCharactersAsAskedFor)
{
    for (const char* script : scripts) {
        const std::string text = text_of(script, 280);
        for (std::size_t chars = 0; chars < 290 && !HasFatalFailure(); chars++)
            check_scan(text, chars);
    }
}

TEST_P(Utf8Variant, ScansUpToADamagedByteAtEveryPlace)
{
    constexpr unsigned char bytes[] = {0x00, 0x41, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBE,
                                       0xBF, 0xC0, 0xC1, 0xC2, 0xDF, 0xE0, 0xE1, 0xED, 0xEF,
                                       0xF0, 0xF1, 0xF4, 0xF5, 0xF7, 0xF8, 0xFE, 0xFF};
    for (const char* script : scripts) {
        const std::string sound = text_of(script, 200);
        for (std::size_t i = 0; i < sound.size(); i++) {
            for (const unsigned char byte : bytes) {
                std::string text = sound;
                text[i] = static_cast<char>(byte);
                ASSERT_NO_FATAL_FAILURE(check_scan(text));
            }
        }
    }
}

TEST_P(Utf8Variant, ScansEveryShortSequenceAtTheEdgesOfABlock)
{
    for (const std::size_t place : {0, 13, 30, 31, 61, 62, 63, 64}) {
        const std::string front(place, 'a');
        const std::string behind = text_of(scripts[4], 130);
        for_each_sequence(under_tsan || place % 2 == 0 ? 2 : 3, [&](const std::string& sequence) {
            if (!HasFatalFailure())
                check_scan(front + sequence + behind);
        });
    }
}

TEST_P(Utf8Variant, ScansFourBytesByTheirRanges)
{
    constexpr unsigned char seconds[] = {0x7F, 0x80, 0x8F, 0x90, 0xBF, 0xC0};
    constexpr unsigned char others[] = {0x41, 0x7F, 0x80, 0xBF, 0xC0, 0xF0};
    for (std::size_t place = 56; place < 66; place++)
        for (unsigned lead = 0xEF; lead <= 0xF9; lead++)
            for (const unsigned char second : seconds)
                for (const unsigned char third : others)
                    for (const unsigned char fourth : others) {
                        std::string text = text_of(scripts[0], place).substr(0, place);
                        text += {static_cast<char>(lead), static_cast<char>(second),
                                 static_cast<char>(third), static_cast<char>(fourth)};
                        ASSERT_NO_FATAL_FAILURE(check_scan(text + text_of(scripts[2], 70)));
                    }
}

TEST_P(Utf8Variant, ScansEveryCodePointWithinABlock)
{
    const std::string behind = text_of(scripts[3], 64);
    for (uint32_t ch = 0x80; ch < 0x120000; ch += under_tsan || under_asan ? 7 : 1)
        ASSERT_NO_FATAL_FAILURE(check_scan(encoded_utf8(ch) + behind));
}

TEST_P(Utf8Variant, ScansRandomText)
{
    std::mt19937 random(1);
    for (int i = 0; i < 3000; i++) {
        std::string text = random_sound(random, random() % 600);
        for (std::size_t damage = random() % 3; damage > 0 && !text.empty(); damage--)
            text[random() % text.size()] = static_cast<char>(random());
        const std::size_t chars = random() % 2 == 0 ? SIZE_MAX : random() % (text.size() + 1);
        ASSERT_NO_FATAL_FAILURE(check_scan(text, chars));
    }
}

// ---- Widening ----

TEST_P(Utf8Variant, WidensTextOfEveryLength)
{
    for (const char* script : scripts)
        for (std::size_t size = 0; size < 300; size++) {
            const std::string text = text_of(script, size, size % 3);
            const std::size_t all = sound_start(text, SIZE_MAX).chars;
            ASSERT_NO_FATAL_FAILURE(check_widen(text, all));
            ASSERT_NO_FATAL_FAILURE(check_widen(text, all, 1 + size % 17));
        }
}

TEST_P(Utf8Variant, WidensAsManyCharactersAsAskedFor)
{
    for (const char* script : scripts) {
        const std::string text = text_of(script, 280);
        const std::size_t all = sound_start(text, SIZE_MAX).chars;
        for (std::size_t chars = 0; chars <= all; chars++) {
            ASSERT_NO_FATAL_FAILURE(check_widen(text, chars));
            ASSERT_NO_FATAL_FAILURE(check_widen(text, chars, 1 + chars % 40));
        }
    }
}

TEST_P(Utf8Variant, WidensRandomText)
{
    std::mt19937 random(2);
    for (int i = 0; i < 3000; i++) {
        const std::string text = random_sound(random, random() % 600);
        const std::size_t all = sound_start(text, SIZE_MAX).chars;
        const std::size_t chars = random() % 2 == 0 ? all : random() % (all + 1);
        ASSERT_NO_FATAL_FAILURE(check_widen(text, chars, random() % 20));
    }
}

TEST_P(Utf8Variant, WidensEveryCodePoint)
{
    std::string text;
    for (uint32_t ch = 0; ch < 0x110000; ch += under_tsan || under_asan ? 7 : 1) {
        if (!is_character(ch))
            continue;
        text += encoded_utf8(ch);
        if (text.size() < 900)
            continue;
        ASSERT_NO_FATAL_FAILURE(check_widen(text, sound_start(text, SIZE_MAX).chars));
        text.clear();
    }
}

// ---- The public functions ----

TEST_P(Utf8Variant, ServesThePublicFunctionsInSoundText)
{
    std::mt19937 random(3);
    for (int i = 0; i < 40; i++)
        ASSERT_NO_FATAL_FAILURE(check_utf8(random_sound(random, random() % 400)));
}

TEST_P(Utf8Variant, ServesThePublicFunctionsInDamagedText)
{
    std::mt19937 random(4);
    for (int i = 0; i < 60; i++) {
        std::string text = random_sound(random, random() % 300);
        for (std::size_t damage = 1 + random() % 4; damage > 0 && !text.empty(); damage--)
            text[random() % text.size()] = static_cast<char>(random());
        ASSERT_NO_FATAL_FAILURE(check_utf8(text));
        ASSERT_NO_FATAL_FAILURE(check_utf8(random_utf8(random, 60, false)));
    }
}

TEST_P(Utf8Variant, ServesThePublicFunctionsAroundADamagedByteAtEveryPlace)
{
    for (const char* script : scripts) {
        const std::string sound = text_of(script, 150);
        for (std::size_t i = 0; i < sound.size(); i++) {
            std::string text = sound;
            text[i] = "\xFF\x80\xE2\x41"[i % 4];
            for (const PSP_UTF8_ERROR_BEHAVIOR behavior : error_behaviors) {
                const DecodedUtf8 wanted = decoded_utf8(text, behavior);
                std::vector<wchar_t> wide(text.size() + 1);
                const std::size_t count = psp_utf8_to_wchar_len(wide.data(), wide.size(),
                                                                text.data(), text.size(), behavior);
                ASSERT_EQ(count, wanted.failed ? PSP_UTF8_FAILED : wanted.chars.size() + 1);
                ASSERT_EQ(psp_countUTF8chars(text.data(), text.size(), behavior),
                          wanted.failed ? 0 : wanted.chars.size());
                for (std::size_t n = 0; !wanted.failed && n < wanted.chars.size(); n++)
                    ASSERT_EQ(wide[n], static_cast<wchar_t>(wanted.chars[n])) << i;
            }
        }
    }
}

TEST_P(Utf8Variant, ServesThePublicFunctionsInTextOfManyPieces)
{
    std::mt19937 random(5);
    for (const std::size_t size : {8191, 8192, 8193, 30000}) {
        const std::string text = random_sound(random, size);
        const std::vector<uint32_t> chars = decoded_utf8(text, PSP_UTF8_ERROR_BREAK).chars;
        const std::size_t all = chars.size();
        std::vector<wchar_t> wanted(chars.begin(), chars.end());
        wanted.push_back(0);
        std::vector<wchar_t> wide(all + 1);
        EXPECT_EQ(psp_utf8_to_wchar(wide.data(), text.c_str(), all + 1, PSP_UTF8_ERROR_BREAK),
                  all + 1);
        EXPECT_EQ(wide, wanted);
        EXPECT_EQ(psp_utf8_to_wchar(nullptr, text.c_str(), 0, PSP_UTF8_ERROR_BREAK), all + 1);
        EXPECT_EQ(psp_countUTF8chars(text.data(), text.size(), PSP_UTF8_ERROR_BREAK), all);
        EXPECT_EQ(psp_countUTF8bytes(text.data(), text.size(), 0, PSP_UTF8_ERROR_BREAK),
                  text.size());
        std::string copy(text.size(), 'Z');
        std::size_t copied = 0;
        EXPECT_EQ(psp_copyUTF8Chars(copy.data(), copy.size(), text.data(), text.size(), &copied,
                                    PSP_UTF8_ERROR_BREAK),
                  text.size());
        EXPECT_EQ(copied, all);
        EXPECT_EQ(copy, text);
    }
}

TEST_P(Utf8Variant, CopiesATextOntoItself)
{
    std::mt19937 random(6);
    for (int i = 0; i < 200; i++) {
        std::string text = random_utf8(random, random() % 300, false);
        std::string wanted;
        for (const uint32_t ch : decoded_utf8(text, PSP_UTF8_ERROR_CONTINUE).chars)
            wanted += encoded_utf8(ch);
        const std::size_t size = psp_copyUTF8Chars(text.data(), text.size(), text.data(),
                                                   text.size(), nullptr, PSP_UTF8_ERROR_CONTINUE);
        ASSERT_EQ(text.substr(0, size), wanted);
    }
}

TEST_P(Utf8Variant, ReadsAStringUpToThePageThatItEndsIn)
{
    GuardedRoom room(4096);
    for (const char* script : scripts)
        for (std::size_t size = 0; size < 200; size++) {
            const std::string text = text_of(script, size);
            const char* const string = room.place({text.c_str(), text.size() + 1});
            EXPECT_EQ(psp_utf8_to_wchar(nullptr, string, 0, PSP_UTF8_ERROR_BREAK),
                      sound_start(text, SIZE_MAX).chars + 1);
        }
}

// ---- The choice ----

TEST(Utf8Choice, IsTheLastVariantThatTheProcessorHas)
{
    const std::size_t supported = psp_utf8_supported();
    ASSERT_GE(supported, 1u);
    ASSERT_LE(supported, psp_utf8_variants.size());
    psp_utf8_chosen = nullptr;
    EXPECT_EQ(psp_utf8_variant(), psp_utf8_variants[supported - 1]);
    EXPECT_EQ(psp_utf8_chosen, psp_utf8_variants[supported - 1]);
    EXPECT_EQ(psp_utf8_variant(), psp_utf8_variants[supported - 1]);
}

TEST(Utf8Choice, FollowsWhatTheCompilerKnowsOfTheProcessor)
{
    EXPECT_EQ(psp_utf8_supported() > 1, __builtin_cpu_supports("avx2") != 0);
    EXPECT_EQ(psp_utf8_supported() > 2, __builtin_cpu_supports("avx512bw") != 0 &&
                                            __builtin_cpu_supports("avx512vbmi") != 0 &&
                                            __builtin_cpu_supports("avx512vbmi2") != 0);
}

TEST(Utf8Choice, NeedsEveryInstructionAndTheRegistersSaved)
{
    constexpr std::uint32_t all = 0xFFFFFFFF;
    EXPECT_EQ(psp_utf8_supported_by({all, all, all, all}), 3u);
    EXPECT_EQ(psp_utf8_supported_by({0, 0, 0, 0}), 1u);
    for (const unsigned bit : {23u, 27u, 28u}) // POPCNT, OSXSAVE, AVX
        EXPECT_EQ(psp_utf8_supported_by({all ^ 1u << bit, all, all, all}), 1u) << bit;
    EXPECT_EQ(psp_utf8_supported_by({all, all ^ 1u << 5, all, all}), 1u); // AVX2
    for (const unsigned bit : {1u, 2u})
        EXPECT_EQ(psp_utf8_supported_by({all, all, all, all ^ 1u << bit}), 1u) << bit;
    for (const unsigned bit : {16u, 30u}) // AVX512F, AVX512BW
        EXPECT_EQ(psp_utf8_supported_by({all, all ^ 1u << bit, all, all}), 2u) << bit;
    for (const unsigned bit : {1u, 6u}) // VBMI, VBMI2
        EXPECT_EQ(psp_utf8_supported_by({all, all, all ^ 1u << bit, all}), 2u) << bit;
    for (const unsigned bit : {5u, 6u, 7u})
        EXPECT_EQ(psp_utf8_supported_by({all, all, all, all ^ 1u << bit}), 2u) << bit;
}

TEST(Utf8Choice, IsOneForThreadsThatMakeItAtOnce)
{
    psp_utf8_chosen = nullptr;
    std::array<const UTF8_VARIANT*, 4> seen{};
    std::array<std::thread, 4> threads;
    for (std::size_t i = 0; i < threads.size(); i++)
        threads[i] = std::thread([&seen, i] { seen[i] = psp_utf8_variant(); });
    for (std::thread& thread : threads)
        thread.join();
    for (const UTF8_VARIANT* const variant : seen)
        EXPECT_EQ(variant, psp_utf8_variants[psp_utf8_supported() - 1]);
}

} // namespace
