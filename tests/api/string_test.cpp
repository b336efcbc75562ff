// Strings and locales, each function against the edges that its callers rely on.
#include "support/psp_test.h"

#include "psp.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <malloc.h>

namespace {

TEST(Case, IsChangedInPlaceForEveryByteTheCLibraryKnows)
{
    for (int byte = 1; byte < 256; ++byte) {
        char text[2] = {static_cast<char>(byte), '\0'};
        EXPECT_EQ(strupr(text), text);
        EXPECT_EQ(static_cast<unsigned char>(text[0]),
                  std::islower(byte) ? std::toupper(byte) : byte);
        text[0] = static_cast<char>(byte);
        EXPECT_EQ(strlwr(text), text);
        EXPECT_EQ(static_cast<unsigned char>(text[0]),
                  std::isupper(byte) ? std::tolower(byte) : byte);
    }
}

TEST(Case, LeavesTheBytesOfOtherScriptsAlone)
{
    char text[] = "aZ \xC3\xA9 9_";
    EXPECT_STREQ(strupr(text), "AZ \xC3\xA9 9_");
    EXPECT_STREQ(strlwr(text), "az \xC3\xA9 9_");
}

TEST(Case, ReturnsNullAndEmptyTextAsTheyAre)
{
    EXPECT_EQ(strupr(nullptr), nullptr);
    EXPECT_EQ(strlwr(nullptr), nullptr);
    char empty[] = "";
    EXPECT_EQ(strupr(empty), empty);
    EXPECT_EQ(strlwr(empty), empty);
}

TEST(BoundedCopy, FillsTheFieldWithZerosBehindTheText)
{
    char field[8];
    std::memset(field, '#', sizeof field);
    EXPECT_EQ(psp_strncpyZ(field, "abc", 6), field);
    EXPECT_EQ(std::string(field, 8), std::string("abc\0\0\0##", 8));
}

TEST(BoundedCopy, CutsTheTextBeforeTheLastByte)
{
    char field[4];
    EXPECT_EQ(psp_strncpyZ(field, "abcdef", 4), field);
    EXPECT_STREQ(field, "abc");
    EXPECT_STREQ(psp_strncpyZ(field, "abc", 4), "abc");
}

TEST(BoundedCopy, OfLengthOneStoresOnlyTheTerminator)
{
    char field[2] = {'#', '#'};
    EXPECT_EQ(psp_strncpyZ(field, "abc", 1), field);
    EXPECT_EQ(field[0], '\0');
    EXPECT_EQ(field[1], '#');
}

TEST(BoundedCopy, OfLengthZeroDoesNothing)
{
    char field[1] = {'#'};
    psp_strncpyZ(field, "abc", 0);
    EXPECT_EQ(field[0], '#');
}

TEST(BoundedCopy, TakesANullSourceAsTheEmptyString)
{
    char field[4] = {'#', '#', '#', '#'};
    EXPECT_EQ(psp_strncpyZ(field, nullptr, 4), field);
    EXPECT_EQ(std::string(field, 4), std::string(4, '\0'));
}

TEST(BoundedCopy, LooksAtNoMoreOfTheSourceThanItCopies)
{
    const char source[3] = {'a', 'b', 'c'}; // not terminated
    char field[4];
    EXPECT_STREQ(psp_strncpyZ(field, source, 4), "abc");
}

TEST(Tokens, AreThoseOfTheCLibrary)
{
    std::mt19937 random(11);
    for (int i = 0; i < 2000; ++i) {
        std::string text;
        for (unsigned n = random() % 12; n > 0; --n)
            text += ",; ab"[random() % 5];
        std::string ours = text;
        std::string theirs = text;
        char* our_state = nullptr;
        char* their_state = nullptr;
        char* our_token = psp_strtok(ours.data(), ",;", &our_state);
        char* their_token = strtok_r(theirs.data(), ",;", &their_state);
        while (their_token != nullptr) {
            ASSERT_NE(our_token, nullptr) << text;
            EXPECT_EQ(our_token - ours.data(), their_token - theirs.data());
            EXPECT_STREQ(our_token, their_token);
            our_token = psp_strtok(nullptr, ",;", &our_state);
            their_token = strtok_r(nullptr, ",;", &their_state);
        }
        EXPECT_EQ(our_token, nullptr);
        EXPECT_EQ(ours, theirs);
    }
}

class Words : public psptest::PspTest {
  protected:
    void SetUp() override
    {
        psptest::PspTest::SetUp();
        tag_ = psp_createTagEx(nullptr, 0, BLOCK_ALLOCATOR, nullptr, nullptr, __FILE__, __LINE__);
        ASSERT_NE(tag_, nullptr);
    }
    void TearDown() override
    {
        psp_freeTagMem(tag_, ZYN_TRUE, __FILE__, __LINE__);
        psptest::PspTest::TearDown();
    }
    std::vector<std::string> split(std::string text, const char* delimiters, int32_t trim)
    {
        const char** words = nullptr;
        uint32_t count = 77;
        EXPECT_EQ(psp_tokenize(text.data(), delimiters, &words, &count, trim, tag_), sOKAY);
        std::vector<std::string> result;
        for (uint32_t i = 0; i < count; ++i) {
            EXPECT_GE(words[i], text.data()) << "words are not copied";
            EXPECT_LE(words[i], text.data() + text.size());
            result.emplace_back(words[i]);
        }
        psp_freeMem(words, tag_, __FILE__, __LINE__);
        return result;
    }
    PSP_MEMTAG tag_ = nullptr;
};

using List = std::vector<std::string>;

TEST_F(Words, DropTokensThatBlanksAloneFillWhenTrimmed)
{
    EXPECT_EQ(split("a, ,b", ",", 1), (List{"a", "b"}));
    EXPECT_EQ(split("a, ,b", ",", 0), (List{"a", " ", "b"}));
}

TEST_F(Words, LoseBlanksAndTabsAtBothEndsWhenTrimmed)
{
    EXPECT_EQ(split(" \t a b \t,\tc\n", ",", -1), (List{"a b", "c\n"}));
    EXPECT_EQ(split(" a ", ",", 0), (List{" a "}));
}

TEST_F(Words, AreSeparatedByRunsOfDelimiters)
{
    EXPECT_EQ(split(",,a,;b;", ",;", 1), (List{"a", "b"}));
}

TEST_F(Words, OfATextWithoutTokensAreNone)
{
    for (const char* text : {"", ",,,", " , \t,"}) {
        std::string input = text;
        const char* dummy = "x";
        const char** words = &dummy;
        uint32_t count = 77;
        EXPECT_EQ(psp_tokenize(input.data(), ",", &words, &count, 1, tag_), sOKAY);
        EXPECT_EQ(words, nullptr);
        EXPECT_EQ(count, 0u);
    }
}

TEST_F(Words, MayBeMany)
{
    std::string text;
    List expected;
    for (int i = 0; i < 1000; ++i) {
        text += std::to_string(i) + ' ';
        expected.push_back(std::to_string(i));
    }
    EXPECT_EQ(split(text, " ", 1), expected);
}

TEST_F(Words, StoreNothingWhenTheArrayCannotGrow)
{
    PSP_MEMTAG fixed =
        psp_createTagEx(nullptr, 0, STACK_ALLOCATOR, nullptr, nullptr, __FILE__, __LINE__);
    ASSERT_NE(fixed, nullptr);
    char text[] = "a,b"; // a stack tag gives the first array but cannot resize it
    const char* dummy = "x";
    const char** words = &dummy;
    uint32_t count = 77;
    EXPECT_EQ(psp_tokenize(text, ",", &words, &count, 0, fixed), eNOMEMORY);
    EXPECT_EQ(words, &dummy);
    psp_freeTagMem(fixed, ZYN_TRUE, __FILE__, __LINE__);

    char other[] = "a";
    EXPECT_EQ(psp_tokenize(other, ",", &words, &count, 0, nullptr), eNOMEMORY) << "no tag";
    EXPECT_EQ(words, &dummy);
}

class ErrorText : public psptest::PspTest {};

TEST_F(ErrorText, IsTheSystemsMessage)
{
    for (const int err : {0, EPERM, ENOENT, ENOMEM, ERANGE, 12345, -1}) {
        char* text = psp_strerr_alloc(err, PSP_GLOBAL_TAG);
        ASSERT_NE(text, nullptr);
        EXPECT_STREQ(text, std::strerror(err));
        psp_freeMem(text, PSP_GLOBAL_TAG, __FILE__, __LINE__);
    }
}

TEST_F(ErrorText, TakesItsBufferOf256BytesFromTheTag)
{
    PSP_MEMTAG tag =
        psp_createTagEx(nullptr, 0, BLOCK_ALLOCATOR, nullptr, nullptr, __FILE__, __LINE__);
    char* text = psp_strerr_alloc(ENOENT, tag);
    ASSERT_NE(text, nullptr);
    PSP_TAG_MEM_INFO info;
    ASSERT_EQ(psp_getTagMemInfo(tag, &info), sOKAY);
    EXPECT_EQ(info.used.current, 256u);
    psp_freeTagMem(tag, ZYN_TRUE, __FILE__, __LINE__);
}

TEST_F(ErrorText, IsNullWithoutMemory)
{
    EXPECT_EQ(psp_strerr_alloc(ENOENT, nullptr), nullptr);
}

TEST(HexDigit, HasItsValueAndEverythingElseHas255)
{
    for (int byte = -128; byte < 128; ++byte) {
        const char c = static_cast<char>(byte);
        int expected = 255;
        if (c >= '0' && c <= '9')
            expected = c - '0';
        else if (c >= 'a' && c <= 'f')
            expected = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            expected = c - 'A' + 10;
        EXPECT_EQ(psp_hexdigit(c), expected) << byte;
    }
}

TEST(Locale, IsSetAndAskedForAsInTheCLibrary)
{
    EXPECT_STREQ(psp_setlocale(LC_ALL, nullptr), "C");
    EXPECT_STREQ(psp_setlocale(LC_ALL, "C.UTF-8"), "C.UTF-8");
    EXPECT_STREQ(setlocale(LC_ALL, nullptr), "C.UTF-8");
    EXPECT_EQ(psp_setlocale(LC_ALL, "no_SUCH"), nullptr);
    EXPECT_STREQ(psp_setlocale(LC_ALL, "C"), "C");
}

TEST(Locale, ObjectsAreMadeFromAMaskAndAName)
{
    const locale_t locale = psp_createlocale(LC_ALL_MASK, "C.UTF-8");
    ASSERT_NE(locale, nullptr);
    EXPECT_EQ(psp_createlocale(LC_ALL_MASK, "no_SUCH"), nullptr);
    psp_freelocale(locale);
}

TEST(Locale, ObjectsGiveTheirMemoryBack)
{
    const auto taken_after = [](int rounds) {
        for (int i = 0; i < rounds; ++i)
            psp_freelocale(psp_createlocale(LC_ALL_MASK, "C.UTF-8"));
        psp_freelocale(nullptr);
        return mallinfo2().uordblks; // 0 where a sanitizer counts instead
    };
    // The C library keeps a little for itself, but not an object a round.
    const size_t after_one = taken_after(1);
    EXPECT_LT(taken_after(100), after_one + 1000);
}

TEST(Locale, CodeSetIsUtf8OrLeftOpen)
{
    const char* good[] = {nullptr,       "",        "C",         "en_US",  "en_US.",
                          "en_US.UTF-8", "x.utf-8", "a.b.Utf-8", ".UTF-8", "en.utf8."};
    for (const char* name : good)
        EXPECT_EQ(psp_locale_validate_utf8(name), ZYN_TRUE) << (name ? name : "(null)");
    const char* bad[] = {"en_US.ISO-8859-1", "en_US.utf8", "en_US.UTF-8@euro", "UTF-8.x"};
    for (const char* name : bad)
        EXPECT_EQ(psp_locale_validate_utf8(name), ZYN_FALSE) << name;
}

} // namespace
