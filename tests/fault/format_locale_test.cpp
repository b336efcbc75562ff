// Separators and points of other locales, put in the place of the C library's answer: of one byte,
// of several, empty and missing; and how often the locale is asked.
#include "fault/faults.h"
#include "support/format_model.h"
#include "support/format_test.h"
#include "support/psp_test.h"

#include "psp_internal.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstdarg>
#include <random>
#include <string>

using namespace psptest;

// The engine's formats are more, and other, than the compiler knows.
#pragma GCC diagnostic ignored "-Wformat"

namespace {

char separator[16];
char point[16];
char odd_grouping[] = "\1\2"; // never looked at: groups have three digits
lconv conventions;

lconv* other_conventions()
{
    return &conventions;
}

class FormatLocale : public ::testing::Test {
  protected:
    void TearDown() override
    {
        Fault::clear();
    }

    // NULL stands for a pointer that is NULL.
    static void use(const char* thousands_sep, const char* decimal_point)
    {
        conventions = *localeconv();
        conventions.grouping = odd_grouping;
        conventions.thousands_sep = nullptr;
        conventions.decimal_point = nullptr;
        if (thousands_sep != nullptr)
            conventions.thousands_sep = std::strcpy(separator, thousands_sep);
        if (decimal_point != nullptr)
            conventions.decimal_point = std::strcpy(point, decimal_point);
        Fault::replace("localeconv", other_conventions);
    }
};

TEST_F(FormatLocale, GroupsThreeDigitsEachFromTheRight)
{
    use(".", ",");
    EXPECT_EQ(formatted("%'d|%'d|%'d|%'d|%'d|%'d", 1, 12, 123, 1234, 123456, 1234567),
              "1|12|123|1.234|123.456|1.234.567");
    EXPECT_EQ(formatted("%'lu", UINTMAX_MAX), "18.446.744.073.709.551.615");
    EXPECT_EQ(formatted("%'d|%+'d|%' d", -1234, 1234, 1234), "-1.234|+1.234| 1.234");
    EXPECT_EQ(formatted("%d|%u|%f", 1234567, 1234567, 1234.5), "1234567|1234567|1234,500000");
}

TEST_F(FormatLocale, GroupsInEveryBase)
{
    use(",", ".");
    EXPECT_EQ(formatted("%'x|%'X|%'o|%#'x|%#'o|%'p", 0xABCDEF, 0xABCDEF, 01234567, 0xABCDEF,
                        01234567, reinterpret_cast<const void*>(0x1234)),
              "abc,def|ABC,DEF|1,234,567|0xabc,def|01,234,567|0x1,234");
}

TEST_F(FormatLocale, PaddingIsNeverGroupedAndCountsSeparators)
{
    use(",", ".");
    EXPECT_EQ(formatted("%'8d|%-'8d|%'08d|%'2d|%'05d", 1234, 1234, 1234, 1234, 1234),
              "   1,234|1,234   |0001,234|1,234|1,234");
    EXPECT_EQ(formatted("%'+010d|%#'012x", 1234567, 0xABCDEF), "+1,234,567|0x000abc,def");
}

// A precision above the digits has the separators counted twice: the zeros are fewer by them, and
// the padding is, too.
TEST_F(FormatLocale, PrecisionCountsSeparatorsTwice)
{
    use(",", ".");
    EXPECT_EQ(formatted("%'.8d", 1234567), "1,234,567");   // 7 digits and 2 separators: no zero
    EXPECT_EQ(formatted("%'.10d", 1234567), "01,234,567"); // 10 - 9
    EXPECT_EQ(formatted("%'14.10d|", 1234567), "  01,234,567|"); // 14 - (2 + 10)
    EXPECT_EQ(formatted("%-'14.10d|", 1234567), "01,234,567  |");
    EXPECT_EQ(formatted("%'14.8d|", 1234567), "    1,234,567|"); // 14 - (2 + 8)
    EXPECT_EQ(formatted("%'12.3d|", 1234567), "   1,234,567|");  // 12 - (2 + 7)
    EXPECT_EQ(formatted("%+'14.10d|", 1234567), " +01,234,567|");
}

TEST_F(FormatLocale, SeparatorsMayHaveSeveralBytes)
{
    use("\xE2\x80\xAF", "\xD9\xAB"); // a narrow space and an Arabic point
    EXPECT_EQ(formatted("%'d", 1234567), "1\xE2\x80\xAF"
                                         "234\xE2\x80\xAF"
                                         "567");
    EXPECT_EQ(formatted("%'15d|%-'15d|%'015d", 1234567, 1234567, 1234567), "  1\xE2\x80\xAF"
                                                                           "234\xE2\x80\xAF"
                                                                           "567|1\xE2\x80\xAF"
                                                                           "234\xE2\x80\xAF"
                                                                           "567  |"
                                                                           "001\xE2\x80\xAF"
                                                                           "234\xE2\x80\xAF"
                                                                           "567");
    EXPECT_EQ(formatted("%'.14d", 1234567), "01\xE2\x80\xAF"
                                            "234\xE2\x80\xAF"
                                            "567");
    EXPECT_EQ(formatted("%.2f|%8.2f|%08.2f|%-8.2f|", 1.5, 1.5, 1.5, 1.5), "1\xD9\xAB"
                                                                          "50|   1\xD9\xAB"
                                                                          "50|0001\xD9\xAB"
                                                                          "50|1\xD9\xAB"
                                                                          "50   |");
    EXPECT_EQ(formatted("%'14.1f|", 12345.5), "   12\xE2\x80\xAF"
                                              "345\xD9\xAB"
                                              "5|");
}

TEST_F(FormatLocale, FloatingValuesGroupTheirIntegerPart)
{
    use(",", ".");
    EXPECT_EQ(formatted("%'.2f|%'.0f|%'f", 1234567.891, 999.0, 0.1234567),
              "1,234,567.89|999|0.123457");
    EXPECT_EQ(formatted("%'15.2f|%'-15.2f|%'015.2f|%'+.2f", 1234567.891, 1234567.891, 1234567.891,
                        1234567.891),
              "   1,234,567.89|1,234,567.89   |0001,234,567.89|+1,234,567.89");
    EXPECT_EQ(formatted("%'g|%'.9g|%'e", 123456.0, 12345678.5, 1234567.0),
              "123,456|12,345,678.5|1.234567e+06");
    EXPECT_EQ(formatted("%'.0f|%'F", 9.9999e18, -1234.0),
              "9,999,900,000,000,000,000|-1,234.000000");
}

TEST_F(FormatLocale, PointStandsInEveryStyle)
{
    use("", ",");
    EXPECT_EQ(formatted("%f|%e|%g|%#.0f|%.0f|%g|%#g", 1.5, 1.5, 1.5, 1.0, 1.0, 1.0, 1.0),
              "1,500000|1,500000e+00|1,5|1,|1|1|1,00000");
}

TEST_F(FormatLocale, MissingTextsAreAnEnglishCommaAndPoint)
{
    use(nullptr, nullptr);
    EXPECT_EQ(formatted("%'d|%'.2f|%'9d|%'09d", 1234567, 1234.5, 12345, 12345),
              "1,234,567|1,234.50|   12,345|00012,345");
    EXPECT_EQ(formatted("%'.8d|%'.10d|%g", 1234567, 1234567, 0.5), "1,234,567|01,234,567|0.5");
}

TEST_F(FormatLocale, EmptyTextsAddNothing)
{
    use("", "");
    EXPECT_EQ(
        formatted("%'d|%'9d|%'.9d|%.2f|%'8.1f|%#.0f", 1234567, 1234567, 1234567, 1.5, 1234.5, 3.0),
        "1234567|  1234567|001234567|150|   12345|3");
    EXPECT_EQ(formatted("%'.0d|%'5.0d|", 0, 0), "|     |");
}

// Without digits the count of separators is so large that no padding is left.
TEST_F(FormatLocale, NoDigitsHaveNoPadding)
{
    use(",", ".");
    EXPECT_EQ(formatted("[%'.0d]", 0), "[]");
    EXPECT_EQ(formatted("[%'.0x]", 0), "[]");
    const std::string padded = formatted("[%'5.0d]", 0);
    EXPECT_TRUE(padded == "[]" || padded == "[     ]") << padded;
}

TEST_F(FormatLocale, WordsAreNotGrouped)
{
    use(",", ".");
    EXPECT_EQ(formatted("%'f|%'8f|%'s|%'c", HUGE_VAL, -HUGE_VAL, "1234567", 'x'),
              "inf|    -inf|1234567|x");
    EXPECT_EQ(formatted("%'Ld|%'p", nullptr), "0|(nil)");
}

// ---- When the locale is asked ----

int questions(const char* fmt, ...)
{
    Fault fault("localeconv");
    va_list args;
    va_start(args, fmt);
    psp_vsnprintf(nullptr, 0, fmt, args);
    va_end(args);
    return fault.calls();
}

TEST_F(FormatLocale, IsAskedOnlyOnNeed)
{
    EXPECT_EQ(questions("text %% %d %5.3u %x %o %s %c %p %i", 1, 2u, 3u, 4u, "s", 'c', "p", 5), 0);
    EXPECT_EQ(questions("%.0f %.0e %g %g", 1.0, 1.0, 1.0, 1e10), 0);
    EXPECT_EQ(questions("%f %g", HUGE_VAL, HUGE_VAL), 0);
}

TEST_F(FormatLocale, IsAskedOnceADirective)
{
    EXPECT_EQ(questions("%'d", 1234567890), 1);
    EXPECT_EQ(questions("%'d %'u %d", 1234567890, 1234567890u, 5), 2);
    EXPECT_EQ(questions("%f", 1.5), 1);
    EXPECT_EQ(questions("%'f", 1234567.5), 1);
    EXPECT_EQ(questions("%'.0f", 1234567.5), 1);
    EXPECT_EQ(questions("%f %e %g %.0f", 1.5, 1.5, 1.5, 1.5), 3);
}

lconv changing;
char changing_point[2] = "a";

lconv* next_conventions()
{
    changing.decimal_point = changing_point;
    changing_point[0] = changing_point[0] == 'a' ? 'b' : 'a';
    return &changing;
}

TEST_F(FormatLocale, IsAskedAnewByTheNextDirective)
{
    changing = *localeconv();
    Fault::replace("localeconv", next_conventions);
    char room[20];
    EXPECT_EQ(psp_snprintf(room, sizeof room, "%.1f %.1f %.1f", 1.5, 1.5, 1.5), 11);
    EXPECT_STREQ(room, "1b5 1a5 1b5");
}

// ---- Beside the model ----

struct LocaleRun {
    const FormatModel& expected;
    std::size_t room; // of the small buffer
    bool equal = true;
};

void drive(LocaleRun& run, const char* fmt, ...)
{
    const std::string& text = run.expected.text;
    va_list args;
    va_start(args, fmt);
    ByteSink sink;
    run.equal = psp_vfnprintf(ByteSink::take, &sink, fmt, args) == run.expected.code;
    const int length = run.expected.code == sOKAY ? static_cast<int>(text.size()) : -1;
    std::string whole(text.size() + 1, '\0'), cut(run.room, '\0');
    run.equal = run.equal && sink.text == text &&
                psp_vsnprintf(whole.data(), whole.size(), fmt, args) == length &&
                whole == text + '\0' && psp_vsnprintf(cut.data(), cut.size(), fmt, args) == length;
    if (run.room > 1)
        run.equal = run.equal && cut.substr(0, run.room - 1) == text.substr(0, run.room - 1);
    va_end(args);
}

TEST_F(FormatLocale, AgreesWithTheModelOnRandomDirectives)
{
    struct {
        const char* separator;
        const char* point;
    } const locales[] = {{",", "."},      {".", ","},    {"\xE2\x80\xAF", "\xD9\xAB"},
                         {"<sep>", "::"}, {"", "point"}, {nullptr, nullptr},
                         {"'", ""}};
    CountTargets targets;
    uint32_t seed = 1;
    for (const auto& locale : locales) {
        use(locale.separator, locale.point);
        const NumberTexts texts{locale.point != nullptr ? locale.point : ".",
                                locale.separator != nullptr ? locale.separator : ","};
        FormatGenerator generator(seed, targets, true);
        std::mt19937 random(seed++);
        for (int done = 0; done < (under_asan || under_tsan ? 1500 : 10000);
             done += generator.directives) {
            const RandomFormat format = generator.next();
            const FormatModel expected(format.fmt, format.values, texts);
            if (expected.left_open)
                continue;
            LocaleRun run{expected, random() % (expected.text.size() + 1)};
            call_with_values(drive, run, format);
            ASSERT_TRUE(run.equal) << format.fmt << " gives " << expected.text;
        }
    }
}

} // namespace
