// The string builders: new strings and strings that grow, from every kind of tag, with their
// failures as NULL, as a code and as a jump.
#include "support/mem_test.h"
#include "support/psp_test.h"

#include "psp/format.h"

#include <gtest/gtest.h>

#include <csetjmp>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>

using namespace psptest;

namespace {

#define HERE __FILE__, __LINE__

constexpr std::size_t small_limit = 4195328; // the least that the library takes
constexpr int too_much = 8000000;            // bytes, more than that

class MakeStr : public PspTest {
  protected:
    void TearDown() override
    {
        EXPECT_EQ(psp_setMemLimit(nullptr, 0), sOKAY);
        PspTest::TearDown();
    }
};

char* build(PSP_MEMTAG tag, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    char* first = psp_makeStrV(HERE, tag, fmt, args);
    char* second = psp_makeStrV(nullptr, 0, tag, fmt, args); // the list is still where it was
    va_end(args);
    EXPECT_STREQ(first, second);
    psp_freeMem(second, tag, HERE);
    return first;
}

TEST_F(MakeStr, GivesANewStringOfEveryTag)
{
    PSP_MEMTAG tags[] = {PSP_THREAD_TAG, PSP_GLOBAL_TAG, nullptr, nullptr, nullptr, nullptr};
    for (std::size_t i = 0; i < 4; i++)
        tags[2 + i] = make_tag(all_types[i]);
    for (const PSP_MEMTAG tag : tags) {
        ASSERT_NE(tag, nullptr);
        char* text = build(tag, "%s %d %5.2f%%", "text", 42, 1.5);
        EXPECT_STREQ(text, "text 42  1.50%");
        char* empty = psp_makeStrVA(HERE, tag, "%s", "");
        EXPECT_STREQ(empty, "");
        char* with_code = nullptr;
        EXPECT_EQ(psp_makeStrVA_rc(HERE, &with_code, tag, "%c%s", 'a', "bc"), sOKAY);
        EXPECT_STREQ(with_code, "abc");
        psp_freeMem(text, tag, HERE);
        psp_freeMem(empty, tag, HERE);
        psp_freeMem(with_code, tag, HERE);
    }
    for (std::size_t i = 0; i < 4; i++)
        destroy_tag(tags[2 + i]);
}

TEST_F(MakeStr, GivesStringsOfEveryLength)
{
    PSP_MEMTAG tag = make_tag();
    for (int length = 0; length < 3000; length += 1 + length / 20) {
        char* text = psp_makeStrVA(HERE, tag, "%*s", length, "");
        ASSERT_NE(text, nullptr);
        EXPECT_EQ(text, std::string(static_cast<std::size_t>(length), ' '));
    }
    char* text = psp_makeStrVA(HERE, tag, "%1000000s|", "");
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(std::strlen(text), 1000001u);
    EXPECT_EQ(text[1000000], '|');
    destroy_tag(tag);
}

// Short texts are made elsewhere and move; longer ones are made in place.
TEST_F(MakeStr, MakesShortAndLongTextsAlike)
{
    PSP_MEMTAG tag = make_tag();
    std::string digits;
    while (digits.size() < 2000)
        digits += std::to_string(digits.size());
    for (int length = 0; length < 1100; length += length % 256 < 240 && length % 256 > 8 ? 29 : 1) {
        const std::string wanted = digits.substr(0, static_cast<std::size_t>(length));
        char* text = psp_makeStrVA(HERE, tag, "%.*s", length, digits.c_str());
        ASSERT_EQ(text, wanted);
        text = psp_appendStrVA(HERE, tag, text, "%.*s|", length, digits.c_str());
        ASSERT_EQ(text, wanted + wanted + '|');
        psp_freeMem(text, tag, HERE);
    }
    destroy_tag(tag);
}

TEST_F(MakeStr, KeepsBytesBehindANul)
{
    char* text = psp_makeStrVA(HERE, PSP_THREAD_TAG, "ab%ccd", 0);
    EXPECT_EQ(std::string(text, 6), std::string("ab\0cd\0", 6));
    psp_freeMem(text, PSP_THREAD_TAG, HERE);
    text = psp_makeStrVA(HERE, PSP_THREAD_TAG, "%600cx%600s", 0, "y");
    EXPECT_EQ(std::string(text, 3), std::string("\0x ", 3));
    EXPECT_EQ(std::string(text + 600, 3), std::string(" y\0", 3));
    psp_freeMem(text, PSP_THREAD_TAG, HERE);
}

TEST_F(MakeStr, NeedsNoPlaceOfTheCaller)
{
    char* text = psp_makeStrVA(nullptr, 0, PSP_THREAD_TAG, "a%d", 1);
    EXPECT_STREQ(text, "a1");
    text = psp_appendStrVA(nullptr, -1, PSP_THREAD_TAG, text, "b%d", 2);
    EXPECT_STREQ(text, "a1b2");
    EXPECT_EQ(psp_appendStrVA_rc(nullptr, 0, &text, PSP_THREAD_TAG, text, "c"), sOKAY);
    EXPECT_STREQ(text, "a1b2c");
    psp_freeMem(text, PSP_THREAD_TAG, nullptr, 0);
    EXPECT_EQ(psp_makeStrVA_rc(nullptr, 0, &text, PSP_THREAD_TAG, "d"), sOKAY);
    EXPECT_STREQ(text, "d");
    psp_freeMem(text, PSP_THREAD_TAG, nullptr, 0);
}

TEST_F(MakeStr, FillsACountTwiceWithTheSameNumber)
{
    int count = -1;
    char* text = psp_makeStrVA(HERE, PSP_THREAD_TAG, "abc%n%s", &count, "de");
    EXPECT_STREQ(text, "abcde");
    EXPECT_EQ(count, 3);
    text = psp_appendStrVA(HERE, PSP_THREAD_TAG, text, "f%n", &count);
    EXPECT_STREQ(text, "abcdef");
    EXPECT_EQ(count, 1); // of what is added
    psp_freeMem(text, PSP_THREAD_TAG, HERE);
}

// ---- Growing ----

TEST_F(MakeStr, AppendsToNothing)
{
    char* text = psp_appendStrVA(HERE, PSP_GLOBAL_TAG, nullptr, "%s-%d", "a", 1);
    EXPECT_STREQ(text, "a-1");
    char* same = psp_appendStrVA(HERE, PSP_GLOBAL_TAG, text, "%s", "");
    EXPECT_STREQ(same, "a-1");
    psp_freeMem(same, PSP_GLOBAL_TAG, HERE);
    EXPECT_EQ(psp_appendStrVA_rc(HERE, &text, PSP_GLOBAL_TAG, nullptr, "x"), sOKAY);
    EXPECT_STREQ(text, "x");
    psp_freeMem(text, PSP_GLOBAL_TAG, HERE);
}

TEST_F(MakeStr, AppendsAgainAndAgain)
{
    for (const PSP_ALLOCATOR_TYPE type : {BLOCK_ALLOCATOR, LIST_ALLOCATOR, LEGACY_ALLOCATOR}) {
        PSP_MEMTAG tag = make_tag(type);
        std::mt19937 random(1);
        std::string wanted;
        char* text = nullptr;
        for (int i = 0; i < 200; i++) {
            const std::string piece(random() % 70, static_cast<char>('a' + i % 26));
            wanted += piece + std::to_string(i);
            if (i % 2 == 0)
                text = psp_appendStrVA(HERE, tag, text, "%s%d", piece.c_str(), i);
            else
                ASSERT_EQ(psp_appendStrVA_rc(HERE, &text, tag, text, "%s%d", piece.c_str(), i),
                          sOKAY);
            ASSERT_EQ(text, wanted) << "allocator " << type;
        }
        destroy_tag(tag);
    }
}

TEST_F(MakeStr, AppendsToNothingOnlyWhereBlocksCannotGrow)
{
    PSP_MEMTAG tag = make_tag(STACK_ALLOCATOR);
    char* old = psp_appendStrVA(HERE, tag, nullptr, "old");
    char* text = reinterpret_cast<char*>(8);
    EXPECT_EQ(psp_appendStrVA(HERE, tag, old, "x"), nullptr);
    EXPECT_EQ(psp_appendStrVA_rc(HERE, &text, tag, old, "x"), eNOMEMORY);
    EXPECT_EQ(text, reinterpret_cast<char*>(8));
    EXPECT_STREQ(old, "old");
    destroy_tag(tag);
}

TEST_F(MakeStr, AppendsBehindTheFirstNul)
{
    char* text = psp_makeStrVA(HERE, PSP_THREAD_TAG, "abcdef");
    text[3] = '\0';
    text = psp_appendStrVA(HERE, PSP_THREAD_TAG, text, "xy");
    EXPECT_STREQ(text, "abcxy");
    psp_freeMem(text, PSP_THREAD_TAG, HERE);
}

// ---- Failures ----

TEST_F(MakeStr, GivesNothingWithoutATag)
{
    char* text = reinterpret_cast<char*>(8);
    EXPECT_EQ(psp_makeStrVA(HERE, nullptr, "abc"), nullptr);
    EXPECT_EQ(psp_makeStrVA_rc(HERE, &text, nullptr, "abc"), eNOMEMORY);
    EXPECT_EQ(text, reinterpret_cast<char*>(8));
    EXPECT_EQ(psp_appendStrVA(HERE, nullptr, nullptr, "abc"), nullptr);
    EXPECT_EQ(psp_appendStrVA_rc(HERE, &text, nullptr, nullptr, "abc"), eNOMEMORY);
    EXPECT_EQ(text, reinterpret_cast<char*>(8));
}

// Calls all four with a format that fails, or measures too much; nothing may change by it.
void expect_all_fail(PSP_MEMTAG tag, const char* fmt, double value)
{
    char* old = psp_makeStrVA(HERE, tag, "old");
    ASSERT_STREQ(old, "old");
    char* text = reinterpret_cast<char*>(8);
    EXPECT_EQ(psp_makeStrVA(HERE, tag, fmt, value), nullptr);
    EXPECT_EQ(psp_makeStrVA_rc(HERE, &text, tag, fmt, value), eNOMEMORY);
    EXPECT_EQ(psp_appendStrVA(HERE, tag, old, fmt, value), nullptr);
    EXPECT_EQ(psp_appendStrVA_rc(HERE, &text, tag, old, fmt, value), eNOMEMORY);
    EXPECT_EQ(psp_appendStrVA(HERE, tag, nullptr, fmt, value), nullptr);
    EXPECT_EQ(text, reinterpret_cast<char*>(8));
    EXPECT_STREQ(old, "old");
    psp_freeMem(old, tag, HERE);
}

TEST_F(MakeStr, GivesNothingWhenTheFormatFails)
{
    for (const PSP_MEMTAG tag : {PSP_THREAD_TAG, PSP_GLOBAL_TAG}) {
        expect_all_fail(tag, "%f", 1e20);
        expect_all_fail(tag, "text%2147483648f", 1.5);
        expect_all_fail(tag, "%2147483646.1f", 1.5); // its NUL is one byte too many
    }
}

TEST_F(MakeStr, DoesNotJumpWhenTheFormatFails)
{
    jmp_buf jump;
    PSP_MEMTAG tag = make_tag(BLOCK_ALLOCATOR, 0, &jump);
    if (setjmp(jump) == 0) {
        expect_all_fail(tag, "%f", 1e20);
        expect_all_fail(tag, "%2147483646.1f", 1.5);
    } else {
        ADD_FAILURE() << "jumped";
    }
    destroy_tag(tag);
}

TEST_F(MakeStr, GivesNothingWhenMemoryIsShort)
{
    ASSERT_EQ(psp_setMemLimit(nullptr, small_limit), sOKAY);
    for (const PSP_ALLOCATOR_TYPE type : {BLOCK_ALLOCATOR, LIST_ALLOCATOR}) {
        PSP_MEMTAG tag = make_tag(type);
        char* old = psp_makeStrVA(HERE, tag, "old");
        char* text = reinterpret_cast<char*>(8);
        EXPECT_EQ(psp_makeStrVA(HERE, tag, "%*d", too_much, 1), nullptr);
        EXPECT_EQ(psp_makeStrVA_rc(HERE, &text, tag, "%*d", too_much, 1), eNOMEMORY);
        EXPECT_EQ(psp_appendStrVA(HERE, tag, old, "%*d", too_much, 1), nullptr);
        EXPECT_EQ(psp_appendStrVA_rc(HERE, &text, tag, old, "%*d", too_much, 1), eNOMEMORY);
        EXPECT_EQ(text, reinterpret_cast<char*>(8));
        old = psp_appendStrVA(HERE, tag, old, "%d", 1);
        EXPECT_STREQ(old, "old1");
        destroy_tag(tag);
    }
}

TEST_F(MakeStr, JumpsWhenMemoryIsShortAndTheTagSaysSo)
{
    ASSERT_EQ(psp_setMemLimit(nullptr, small_limit), sOKAY);
    jmp_buf jump;
    PSP_MEMTAG tag = make_tag(BLOCK_ALLOCATOR, 0, &jump);
    char* const old = psp_makeStrVA(HERE, tag, "old");
    char* text = reinterpret_cast<char*>(8);
    for (int form = 0; form < 4; form++) {
        const int jumped = setjmp(jump);
        if (jumped != 0) {
            EXPECT_EQ(jumped, 1);
            EXPECT_STREQ(old, "old");
            continue;
        }
        if (form == 0)
            text = psp_makeStrVA(HERE, tag, "%*d", too_much, 1);
        else if (form == 1)
            psp_makeStrVA_rc(HERE, &text, tag, "%*d", too_much, 1);
        else if (form == 2)
            text = psp_appendStrVA(HERE, tag, old, "%*d", too_much, 1);
        else
            psp_appendStrVA_rc(HERE, &text, tag, old, "%*d", too_much, 1);
        ADD_FAILURE() << "form " << form << " returned";
    }
    destroy_tag(tag);
}

TEST(MakeStrBeforeStart, GivesNothing)
{
    ASSERT_EQ(psp_inited, 0);
    char* text = reinterpret_cast<char*>(8);
    EXPECT_EQ(psp_makeStrVA(HERE, PSP_THREAD_TAG, "abc"), nullptr);
    EXPECT_EQ(psp_makeStrVA_rc(HERE, &text, PSP_GLOBAL_TAG, "abc"), eNOMEMORY);
    EXPECT_EQ(psp_appendStrVA(HERE, PSP_GLOBAL_TAG, nullptr, "abc"), nullptr);
    EXPECT_EQ(psp_appendStrVA_rc(HERE, &text, PSP_THREAD_TAG, nullptr, "abc"), eNOMEMORY);
    EXPECT_EQ(text, reinterpret_cast<char*>(8));
}

} // namespace
