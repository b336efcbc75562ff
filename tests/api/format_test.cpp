// The formatting engine: the callback's side, the grammar of a directive, every conversion but the
// floating ones, and '%n'. In the C locale.
#include "support/format_test.h"
#include "support/guarded.h"
#include "support/psp_test.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdarg>
#include <cstring>
#include <string>
#include <vector>

using namespace psptest;

// The engine's formats are more, and other, than the compiler knows.
#pragma GCC diagnostic ignored "-Wformat"
#ifndef __clang__
#pragma GCC diagnostic ignored "-Wformat-overflow"
#endif

namespace {

const void* at(uintptr_t address)
{
    return reinterpret_cast<const void*>(address);
}

const char* const no_string = nullptr;

// ---- The callback ----

ZYN_RETCODE note_context(ZYN_OUTPUT_CTX ctx, uint32_t ch)
{
    static_cast<std::vector<uint32_t>*>(ctx)->push_back(ch);
    return sOKAY;
}

TEST(FormatCallback, GetsItsContextAndEachByteZeroExtended)
{
    std::vector<uint32_t> bytes;
    EXPECT_EQ(psp_fnprintf(note_context, &bytes, "\xE9%s%c", "\xFF\x80", 0x1E9), sOKAY);
    EXPECT_EQ(bytes, (std::vector<uint32_t>{233, 255, 128, 233}));
}

TEST(FormatCallback, SeesNothingForAnEmptyFormat)
{
    std::vector<uint32_t> bytes;
    EXPECT_EQ(psp_fnprintf(note_context, &bytes, "%s", ""), sOKAY);
    EXPECT_EQ(formatted(""), "");
    EXPECT_TRUE(bytes.empty());
}

TEST(FormatCallback, StopsTheEngineWithAnyOtherCodeAtAnyByte)
{
    const char* const fmt = "ab%c%%%+-6d|%#06x|%5s|%-5s|%.5i|%8.2f|%-9e|%p|%6p|%05g\xC3\xA9";
    const auto run = [fmt](ByteSink& sink) {
        return psp_fnprintf(ByteSink::take, &sink, fmt, 'c', 12, 255, "xy", "zu", 42, 1.5, 1e10,
                            at(0x10), at(0), -0.5);
    };
    ByteSink whole;
    ASSERT_EQ(run(whole), sOKAY);
    EXPECT_EQ(whole.text, "abc%+12   |0x00ff|   xy|zu   |00042|    1.50|1.000000e+10|0x10| (nil)|"
                          "-00.5\xC3\xA9");
    for (const ZYN_RETCODE code : {+sNOTFOUND, +sNEEDDATA, +eBADWRITE, +eRANGE, 1}) {
        for (std::size_t n = 0; n < whole.text.size(); n++) {
            ByteSink sink{.refused = n, .code = code};
            EXPECT_EQ(run(sink), code) << n;
            EXPECT_EQ(sink.calls, n + 1);
            EXPECT_EQ(sink.text, whole.text.substr(0, n));
        }
    }
}

void format_twice(const char* wanted, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    for (int pass = 0; pass < 2; pass++) {
        ByteSink sink;
        EXPECT_EQ(psp_vfnprintf(ByteSink::take, &sink, fmt, args), sOKAY);
        EXPECT_EQ(sink.text, wanted);
        char room[100];
        EXPECT_EQ(psp_vsnprintf(room, sizeof room, fmt, args), static_cast<int>(sink.text.size()));
        EXPECT_STREQ(room, wanted);
    }
    EXPECT_EQ(va_arg(args, int), 1); // the list stands where it stood
    va_end(args);
}

TEST(Format, LeavesTheCallersArgumentListWhereItIs)
{
    format_twice("1 2 3 4 5 6 7 8 0.5 x 1.5 9", "%d %d %d %d %d %d %d %d %g %s %Lg %d", 1, 2, 3, 4,
                 5, 6, 7, 8, 0.5, "x", 1.5L, 9);
}

TEST(Format, PassesBytesOfUtf8ThroughAndCountsThemAsBytes)
{
    EXPECT_EQ(formatted("\xE2\x82\xAC%s\xF0\x9F\x98\x80", "\xC3\xA9"),
              "\xE2\x82\xAC\xC3\xA9\xF0\x9F\x98\x80");
    EXPECT_EQ(formatted("%4s|%-4s|%.1s", "\xC3\xA9", "\xC3\xA9", "\xC3\xA9"),
              "  \xC3\xA9|\xC3\xA9  |\xC3");
    EXPECT_EQ(formatted("\xFF\xFE\x80 %s", "\xC0"), "\xFF\xFE\x80 \xC0");
}

TEST(Format, CopiesTextOfEveryLengthAroundADirective)
{
    for (std::size_t before = 0; before < 70; before++)
        for (const std::size_t after : {std::size_t{0}, std::size_t{1}, before, before + 17}) {
            const std::string left(before, 'l'), right(after, 'r');
            EXPECT_EQ(formatted((left + "%d" + right).c_str(), 7), left + "7" + right);
        }
}

TEST(Format, ReadsNoByteBehindAnEnd)
{
    GuardedRoom formats(300), strings(300);
    for (std::size_t length = 0; length < 100; length++) {
        const std::string text(length, 't'), end(1, '\0');
        const char* const string = strings.place(text + end);
        EXPECT_EQ(formatted(formats.place(text + end)), text);
        EXPECT_EQ(formatted(formats.place("%s" + text + end), string), text + text);
        EXPECT_EQ(formatted(formats.place(text + "%s" + end), string), text + text);
        EXPECT_EQ(formatted(formats.place(text + "%120s" + end), string),
                  text + std::string(120 - length, ' ') + text);
        for (const char* cut_off : {"%", "%l", "%ll", "%-", "%8", "%.", "%h"})
            EXPECT_EQ(formatted(formats.place(text + cut_off + end)), text) << cut_off;
        const char* const unterminated = strings.place(text);
        EXPECT_EQ(formatted("%.*s", static_cast<int>(length), unterminated), text);
    }
}

// ---- Flags ----

TEST(FormatFlags, StandInAnyOrderAndAnyNumber)
{
    for (const char* flags : {"+-", "-+", "+-+-", "- +", "+ -", "-0+", "0+-", "-#+", "-'+0 #"})
        EXPECT_EQ(formatted((std::string("%") + flags + "5d|").c_str(), 7), "+7   |") << flags;
    EXPECT_EQ(formatted("%0005d", 42), "00042");
    EXPECT_EQ(formatted("%00+5d", 42), "+0042");
}

TEST(FormatFlags, BelongToTheirDirectiveAlone)
{
    EXPECT_EQ(formatted("%-+#05d|%5d|%x|%X|%x", 1, 2, 255, 255, 255), "+1   |    2|ff|FF|ff");
    EXPECT_EQ(formatted("%.3d|%d|%hhd|%d", 1, 2, 257, 257), "001|2|1|257");
    EXPECT_EQ(formatted("%u|%d|%p|%x", 0xFFFFFFFFu, -1, at(1), 1), "4294967295|-1|0x1|1");
}

// ---- Width and precision ----

TEST(FormatWidth, IsAMinimum)
{
    EXPECT_EQ(formatted("%1d|%5d|%3d|%010d", 12345, 12345, 12345, 12345),
              "12345|12345|12345|0000012345");
    EXPECT_EQ(formatted("%0d|%-0d", 5, 6), "5|6");
    EXPECT_EQ(formatted("%100s", "x"), std::string(99, ' ') + "x");
}

TEST(FormatWidth, ComesFromAnArgument)
{
    EXPECT_EQ(formatted("%*d|%*d|%*d", 6, 42, -6, 42, 0, 42), "    42|42    |42");
    EXPECT_EQ(formatted("%0*d|%-*d|%-*d|", 6, 42, 6, 42, -6, 42), "000042|42    |42    |");
    EXPECT_EQ(formatted("%*s|%0*d|", -4, "ab", -4, 7), "ab  |7   |");
    EXPECT_EQ(formatted("%*5d", 3, 7), "d"); // digits do not follow an asterisk
}

TEST(FormatWidth, OfTheLeastIntIsItsMagnitude)
{
    EXPECT_EQ(start_of(40, "%*d", INT_MIN, 7), "7" + std::string(39, ' '));
    EXPECT_EQ(start_of(40, "%*d", INT_MAX, 7), std::string(40, ' '));
    EXPECT_EQ(measured("%*d", INT_MIN, 7), -1);
    EXPECT_EQ(measured("%*d", INT_MIN + 3, 7), 2147483645);
}

TEST(FormatWidth, BeyondTheLimitFails)
{
    EXPECT_EQ(start_of(3, "%2147483647d", 7), "   ");
    EXPECT_EQ(start_of(3, "%-2147483647d", 7), "7  ");
    EXPECT_EQ(format_failure("ab%d%2147483648dx", 12, 7), (FormatFailure{eRANGE, "ab12"}));
    EXPECT_EQ(format_failure("%2147483650d", 7), (FormatFailure{eRANGE, ""}));
    EXPECT_EQ(format_failure("ab%3000000000s", "x"), (FormatFailure{eRANGE, "ab"}));
    EXPECT_EQ(format_failure("ab%4294967297d", 7), (FormatFailure{eRANGE, "ab"}));
    EXPECT_EQ(format_failure("ab%18446744073709551617d", 7), (FormatFailure{eRANGE, "ab"}));
    EXPECT_EQ(format_failure("ab%99999999999999999999999999999999999999999d", 7),
              (FormatFailure{eRANGE, "ab"}));
    EXPECT_EQ(format_failure("a%2147483648%"), (FormatFailure{eRANGE, "a"}));
    EXPECT_EQ(format_failure("a%2147483648y"), (FormatFailure{eRANGE, "a"}));
    EXPECT_EQ(format_failure("a%2147483648n"), (FormatFailure{eRANGE, "a"}));
}

TEST(FormatPrecision, BeyondTheLimitFails)
{
    EXPECT_EQ(start_of(3, "%.2147483647d", 7), "000");
    EXPECT_EQ(formatted("%.2147483647s", "text"), "text");
    EXPECT_EQ(formatted("%.00000000000000000003d", 7), "007");
    EXPECT_EQ(format_failure("ab%.2147483648dx", 7), (FormatFailure{eRANGE, "ab"}));
    EXPECT_EQ(format_failure("ab%5.4294967299s", "text"), (FormatFailure{eRANGE, "ab"}));
    EXPECT_EQ(format_failure("ab%.99999999999999999999s", "text"), (FormatFailure{eRANGE, "ab"}));
}

TEST(FormatPrecision, ComesFromAnArgument)
{
    EXPECT_EQ(formatted("%.*d|%.*s|%.*d|", 4, 42, 2, "text", 0, 0), "0042|te||");
    EXPECT_EQ(formatted("%*.*d|%-*.*d|", 6, 4, 42, 6, 4, 42), "  0042|0042  |");
    EXPECT_EQ(formatted("%0*.*d|", 6, 4, 42), "  0042|");
}

TEST(FormatPrecision, BelowZeroCountsAsNotGiven)
{
    EXPECT_EQ(formatted("%.*d|%.*s|%.*s", -1, 0, -3, "text", INT_MIN, no_string), "0|text|(null)");
    EXPECT_EQ(formatted("%05.*d|%.*f|%.*g", -7, 42, -1, 1.5, -1, 1.5), "00042|1.500000|1.5");
}

TEST(FormatPrecision, IsZeroBehindALonePoint)
{
    EXPECT_EQ(formatted("%.d|%5.d|%.s|%.f|%.d", 0, 0, "text", 2.25, 12), "|     ||2|12");
    EXPECT_EQ(formatted("[%.-3d]", 7), "[3d]"); // a sign is no conversion
}

// ---- Modifiers ----

TEST(FormatModifier, CutsOrWidensSignedArguments)
{
    EXPECT_EQ(formatted("%hhd %hhd %hhd", 0x17F, 0x80, -129), "127 -128 127");
    EXPECT_EQ(formatted("%hd %hd %hd", 0x17FFF, 0x8000, -32769), "32767 -32768 32767");
    EXPECT_EQ(formatted("%d %i %d", INT_MAX, INT_MIN, -1), "2147483647 -2147483648 -1");
    const std::string both = "9223372036854775807 -9223372036854775808";
    EXPECT_EQ(formatted("%ld %ld", LONG_MAX, LONG_MIN), both);
    EXPECT_EQ(formatted("%lld %lli", LLONG_MAX, LLONG_MIN), both);
    EXPECT_EQ(formatted("%jd %ji", INTMAX_MAX, INTMAX_MIN), both);
    EXPECT_EQ(formatted("%zd %zi", INTMAX_MAX, INTMAX_MIN), both);
    EXPECT_EQ(formatted("%td %ti", PTRDIFF_MAX, PTRDIFF_MIN), both);
}

TEST(FormatModifier, CutsOrWidensUnsignedArguments)
{
    EXPECT_EQ(formatted("%hhu %hhx %hho %hhX", -1, 0x1AB, 0777, 0x1AB), "255 ab 377 AB");
    EXPECT_EQ(formatted("%hu %hx %ho", -1, 0x1ABCD, 0x18000), "65535 abcd 100000");
    EXPECT_EQ(formatted("%u %x %o %X", -1, -1, -1, -1), "4294967295 ffffffff 37777777777 FFFFFFFF");
    for (const char* modifier : {"l", "ll", "j", "z", "t"}) {
        const std::string fmt = std::string("%") + modifier + "u %" + modifier + "x %" + modifier +
                                "o %" + modifier + "X";
        EXPECT_EQ(formatted(fmt.c_str(), UINTMAX_MAX, UINTMAX_MAX, UINTMAX_MAX, INTMAX_MIN),
                  "18446744073709551615 ffffffffffffffff 1777777777777777777777 8000000000000000");
    }
}

TEST(FormatModifier, OfALongDoubleGivesIntegersZeroAndTakesNothing)
{
    EXPECT_EQ(formatted("%Ld %d", 7), "0 7");
    EXPECT_EQ(formatted("%Li%Lu%Lo%Lx%LX %s", "s"), "00000 s");
    EXPECT_EQ(formatted("%+5Ld|%-+5Ld|%05Ld|%.0Ld|%#Lx|%.3Ld"), "   +0|+0   |00000||0|000");
}

TEST(FormatModifier, IsOnlyOne)
{
    EXPECT_EQ(formatted("%qd"), "d");
    EXPECT_EQ(formatted("%hhhd|%llld|%Lld|%zzd|%hld|%jtd|%lhd|%tjd"), "d|d|d|d|d|d|d|d");
    EXPECT_EQ(formatted("%wd|%Id|%Zd|%vd"), "d|d|d|d");
    EXPECT_EQ(formatted("%l5d|%h-d|%l.3d"), "d|d|3d"); // what follows it is the conversion
}

TEST(FormatModifier, DoesNotMatterElsewhere)
{
    EXPECT_EQ(formatted("%hhs|%ls|%Ls|%js", "a", "b", "c", "d"), "a|b|c|d");
    EXPECT_EQ(formatted("%lc|%hhc|%Lc", 'a', 'b', 'c'), "a|b|c");
    EXPECT_EQ(formatted("%hhp|%lp|%Lp", at(0x12345), at(0x12345), at(0x12345)),
              "0x12345|0x12345|0x12345");
    EXPECT_EQ(formatted("%l%|%hh%|%L%"), "%|%|%");
    EXPECT_EQ(formatted("%lf|%hf|%zf", 1.5, 2.5, 3.5), "1.500000|2.500000|3.500000");
}

// ---- Characters that are no conversions ----

TEST(FormatUnknown, ConversionIsDroppedAndTakesNothing)
{
    for (int ch = 1; ch < 256; ch++) {
        if (std::string("diouxXfFeEgGaAcspn% #'+-0.*hlLjzt123456789").find(static_cast<char>(ch)) !=
            std::string::npos)
            continue;
        const std::string last(1, static_cast<char>(ch));
        EXPECT_EQ(formatted(("<%" + last + ">%d").c_str(), 7), "<>7") << ch;
        EXPECT_EQ(formatted(("<%-08.3ll" + last + ">%d").c_str(), 7), "<>7") << ch;
    }
    EXPECT_EQ(formatted("%y"), "");
    EXPECT_EQ(formatted("%5$d"), "d");
    EXPECT_EQ(formatted("%*.*y|%d", 5, 3, 7), "|7"); // asterisks take theirs
}

TEST(FormatPercent, IgnoresWhatStandsBetween)
{
    EXPECT_EQ(formatted("%%"), "%");
    EXPECT_EQ(formatted("%5%|%-5%|%05.3%|%l%"), "%|%|%|%");
    EXPECT_EQ(formatted("%*%|%d", 5, 7), "%|7");
    EXPECT_EQ(formatted("100%% %%d %d", 7), "100% %d 7");
}

// ---- Characters ----

TEST(FormatChar, IsTheLowByteAsItIs)
{
    EXPECT_EQ(formatted("%c%c%c", 'a', 0x162, -157), "abc");
    EXPECT_EQ(formatted("%5c|%-5c|%05c|%.0c|%+c", 'a', 'b', 'c', 'd', 'e'), "a|b|c|d|e");
    EXPECT_EQ(formatted("%*c|%.*c", 5, 'a', 0, 'b'), "a|b");
    for (int ch = 0; ch < 256; ch++)
        EXPECT_EQ(formatted("%c", ch), std::string(1, static_cast<char>(ch)));
    EXPECT_EQ(formatted("a%cb", 0), std::string("a\0b", 3)); // a NUL is a byte like others
}

// ---- Strings ----

TEST(FormatString, IsCutAndPaddedInBytes)
{
    EXPECT_EQ(formatted("%s|%.3s|%.0s|%.9s|%s", "text", "text", "text", "text", ""),
              "text|tex||text|");
    EXPECT_EQ(formatted("%6s|%-6s|%4s|%2s|%6s|", "text", "text", "text", "text", ""),
              "  text|text  |text|text|      |");
    EXPECT_EQ(formatted("%6.2s|%-6.2s|%3.0s|", "text", "text", "text"), "    te|te    |   |");
    EXPECT_EQ(
        formatted("%06s|%-06s|%+6s|%#6s|% 6s|%'6s", "text", "text", "text", "text", "text", "text"),
        "  text|text  |  text|  text|  text|  text");
}

TEST(FormatString, OfManyLengths)
{
    for (std::size_t length = 0; length < 80; length++) {
        const std::string text(length, 'x');
        const std::string fill(length < 40 ? 40 - length : 0, ' ');
        EXPECT_EQ(formatted("%s", text.c_str()), text);
        EXPECT_EQ(formatted("%40s", text.c_str()), fill + text);
        EXPECT_EQ(formatted("%-40s", text.c_str()), text + fill);
        EXPECT_EQ(formatted("%.40s", text.c_str()), text.substr(0, 40));
    }
}

TEST(FormatString, IsNotReadBehindItsPrecision)
{
    const std::string bytes = "text"; // on the heap, where a checker sees a step too far
    std::vector<char> unterminated(bytes.begin(), bytes.end());
    EXPECT_EQ(formatted("%.4s|%.*s|%.0s", unterminated.data(), 3, unterminated.data(),
                        unterminated.data()),
              "text|tex|");
}

TEST(FormatString, OfNoneIsNullOrNothing)
{
    EXPECT_EQ(formatted("%s|%.5s|%.6s|%.7s|%.0s|%.s", no_string, no_string, no_string, no_string,
                        no_string, no_string),
              "(null)||(null)|(null)||");
    EXPECT_EQ(formatted("%8s|%-8s|%8.5s|%.*s|%.*s", no_string, no_string, no_string, 5, no_string,
                        -1, no_string),
              "  (null)|(null)  |        ||(null)");
}

// ---- Integers ----

TEST(FormatInteger, HasASignOnlyWhenSigned)
{
    EXPECT_EQ(formatted("%+d|%+d|%+d|% d|% d|% d", 5, 0, -5, 5, 0, -5), "+5|+0|-5| 5| 0|-5");
    EXPECT_EQ(formatted("%+ d|% +d", 5, 5), "+5|+5");
    EXPECT_EQ(formatted("%+u|% u|%+x|% o|%+X", 5, 5, 5, 5, 5), "5|5|5|5|5");
    EXPECT_EQ(formatted("%+p|% p", at(5), at(5)), "0x5|0x5");
}

TEST(FormatInteger, IsPaddedWithZerosBehindSignAndPrefix)
{
    EXPECT_EQ(formatted("%05d|%05d|%+05d|% 05d", -42, 42, 42, 42), "-0042|00042|+0042| 0042");
    EXPECT_EQ(formatted("%-05d|%-05d|%0-5d|", 42, -42, 42), "42   |-42  |42   |");
    EXPECT_EQ(formatted("%#06x|%#06X|%#06o|%06x", 255, 255, 8, 255), "0x00ff|0X00FF|000010|0000ff");
    EXPECT_EQ(formatted("%08.3d|%08.d|%08.*d", 7, 7, -1, 7), "     007|       7|00000007");
    EXPECT_EQ(formatted("%02d|%03d|%+02d", 123, 123, 12), "123|123|+12");
}

TEST(FormatInteger, HasAtLeastAsManyDigitsAsThePrecision)
{
    EXPECT_EQ(formatted("%.3d|%.3d|%.1d|%.3d|%+.3d", 7, -7, 12, 1234, 7), "007|-007|12|1234|+007");
    EXPECT_EQ(formatted("%6.3d|%-6.3d|%2.3d|%-6.3d|", 7, 7, 7, -7), "   007|007   |007|-007  |");
    EXPECT_EQ(formatted("%.3x|%#.3x|%#.3X|%.3o|%.3u", 10, 10, 10, 8, 7), "00a|0x00a|0X00A|010|007");
    EXPECT_EQ(formatted("%.60d", 7), std::string(59, '0') + "7");
    EXPECT_EQ(formatted("%.60lx", UINTMAX_MAX), std::string(44, '0') + "ffffffffffffffff");
}

TEST(FormatInteger, ZeroWithPrecisionZeroHasNoDigits)
{
    EXPECT_EQ(formatted("[%.0d]%5.0d|%-5.0d|%05.0d|", 0, 0, 0, 0), "[]     |     |     |");
    EXPECT_EQ(formatted("%.0u|%.0x|%.0o|%#.0x|%#.0o|%.0X", 0, 0, 0, 0, 0, 0), "|||||");
    EXPECT_EQ(formatted("%+.0d|% .0d|%+5.0d|%-+5.0d|", 0, 0, 0, 0), "+| |    +|+    |");
    EXPECT_EQ(formatted("%#.0o|%#.1o|%#3.0o|%.0d", 0, 0, 0, 10), "|0|   |10");
    EXPECT_EQ(formatted("%'.0d|%'5.0d|", 0, 0), "|     |"); // no separators in this locale
}

TEST(FormatInteger, InAlternateFormHasAPrefixUnlessItIsZero)
{
    EXPECT_EQ(formatted("%#x|%#X|%#o|%#x|%#X|%#o", 255, 255, 8, 0, 0, 0), "0xff|0XFF|010|0|0|0");
    EXPECT_EQ(formatted("%#d|%#i|%#u", 8, 8, 8), "8|8|8");
    EXPECT_EQ(formatted("%#8x|%-#8x|%#8o|%-#8o|", 255, 255, 8, 8),
              "    0xff|0xff    |     010|010     |");
    EXPECT_EQ(formatted("%#llx|%#hhx", 0x123456789ABCDEFll, 0x1FF), "0x123456789abcdef|0xff");
}

TEST(FormatInteger, OctalPrefixIsOneOfThePrecisionsDigits)
{
    EXPECT_EQ(formatted("%#.5o|%#.2o|%#.3o|%#.1o|%#.0o", 8, 8, 8, 8, 8), "00010|010|010|010|010");
    EXPECT_EQ(formatted("%#8.5o|%-#8.5o|", 8, 8), "   00010|00010   |");
    EXPECT_EQ(formatted("%#.5o|%#.1o|%#.2o", 0, 0, 0), "00000|0|00");
    // Precision 0 becomes none at all by that, and zeros may pad again.
    EXPECT_EQ(formatted("%#08.0o|%#08.1o|%#-8.0o|", 8, 8, 8), "00000010|     010|010     |");
}

TEST(FormatInteger, HasTheDigitsOfItsBase)
{
    for (int shift = 0; shift < 64; shift++) {
        const uint64_t values[] = {uint64_t{1} << shift, (uint64_t{1} << shift) - 1,
                                   UINT64_MAX >> shift, UINT64_MAX << shift};
        for (const uint64_t value : values) {
            std::string decimal, octal, lower, upper;
            for (uint64_t rest = value; rest != 0 || decimal.empty(); rest /= 10)
                decimal.insert(0, 1, static_cast<char>('0' + rest % 10));
            for (uint64_t rest = value; rest != 0 || octal.empty(); rest /= 8)
                octal.insert(0, 1, static_cast<char>('0' + rest % 8));
            for (uint64_t rest = value; rest != 0 || lower.empty(); rest /= 16) {
                lower.insert(0, 1, "0123456789abcdef"[rest % 16]);
                upper.insert(0, 1, "0123456789ABCDEF"[rest % 16]);
            }
            EXPECT_EQ(formatted("%lu", value), decimal);
            EXPECT_EQ(formatted("%lo", value), octal);
            EXPECT_EQ(formatted("%lx", value), lower);
            EXPECT_EQ(formatted("%lX", value), upper);
        }
    }
    uint64_t power = 1;
    for (int digits = 1; digits <= 19; digits++, power *= 10) {
        EXPECT_EQ(formatted("%lu", power), "1" + std::string(static_cast<size_t>(digits) - 1, '0'));
        if (power > 1) {
            EXPECT_EQ(formatted("%lu", power - 1),
                      std::string(static_cast<size_t>(digits) - 1, '9'));
        }
    }
    EXPECT_EQ(formatted("%lu", uint64_t{10000000000000000000u}), "10000000000000000000");
}

TEST(FormatInteger, IsNotGroupedInTheCLocale)
{
    EXPECT_EQ(formatted("%'d|%'u|%'10d|%'x|%'o|%'p", 1234567, 1234567, 1234567, 0x1234567, 01234567,
                        at(0x1234567)),
              "1234567|1234567|   1234567|1234567|1234567|0x1234567");
}

// ---- Pointers ----

TEST(FormatPointer, IsHexadecimalWithPrefix)
{
    EXPECT_EQ(formatted("%p|%p|%p", at(0x1234), at(UINTPTR_MAX), at(0xABCDEF)),
              "0x1234|0xffffffffffffffff|0xabcdef");
    EXPECT_EQ(formatted("%10p|%-10p|%010p|%#p|%.6p|%10.6p|", at(0x1234), at(0x1234), at(0x1234),
                        at(0x1234), at(0x1234), at(0x1234)),
              "    0x1234|0x1234    |0x00001234|0x1234|0x001234|  0x001234|");
    EXPECT_EQ(formatted("%.0p", at(1)), "0x1");
}

TEST(FormatPointer, OfNothingIsAWord)
{
    EXPECT_EQ(formatted("%p|%10p|%-10p|%010p|", at(0), at(0), at(0), at(0)),
              "(nil)|     (nil)|(nil)     |     (nil)|");
    EXPECT_EQ(formatted("%.3p|%.0p|%.9p|%6.3p|%-6.3p|%#p|%+p", at(0), at(0), at(0), at(0), at(0),
                        at(0), at(0)),
              "(ni||(nil)|   (ni|(ni   |(nil)|(nil)");
}

// ---- Counts ----

TEST(FormatCount, IsOfTheBytesSoFar)
{
    int first = -1, second = -1, third = -1;
    EXPECT_EQ(formatted("%nab\xC3\xA9%5d%n%%%c%n", &first, 7, &second, 0, &third),
              std::string("ab\xC3\xA9    7%\0", 11));
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 9);
    EXPECT_EQ(third, 11);
}

// The bytes that one '%n' stores into 8 bytes of FF, lowest first.
uint64_t stored_count(const char* modifier, int count)
{
    uint64_t word = UINT64_MAX;
    const std::string fmt = std::string("%*s%") + modifier + "n";
    EXPECT_EQ(measured(fmt.c_str(), count, "", &word), count);
    return word;
}

TEST(FormatCount, HasTheWidthOfItsModifier)
{
    EXPECT_EQ(stored_count("", 0x12345), 0xFFFFFFFF00012345);
    EXPECT_EQ(stored_count("hh", 0x12345), 0xFFFFFFFFFFFFFF45);
    EXPECT_EQ(stored_count("h", 0x12345), 0xFFFFFFFFFFFF2345);
    for (const char* modifier : {"l", "ll", "z", "t", "j"})
        EXPECT_EQ(stored_count(modifier, 0x12345), 0x12345u) << modifier;
}

TEST(FormatCount, IsA32BitNumber)
{
    uint64_t as_long = 1, as_size = 1, as_long_long = 1, as_difference = 1, as_max = 1;
    int as_int = 1;
    EXPECT_EQ(measured("%2147483647s%s%ln%zn%lln%tn%jn%n", "", "x", &as_long, &as_size,
                       &as_long_long, &as_difference, &as_max, &as_int),
              -1);
    EXPECT_EQ(as_long, 0xFFFFFFFF80000000u); // extended with its sign
    EXPECT_EQ(as_size, 0x80000000u);         // extended with zeros
    EXPECT_EQ(as_long_long, as_long);
    EXPECT_EQ(as_difference, as_long);
    EXPECT_EQ(as_max, as_long);
    EXPECT_EQ(as_int, INT_MIN);
}

TEST(FormatCount, WithTheLongDoubleModifierTakesNothing)
{
    EXPECT_EQ(formatted("ab%Ln%d", 7), "ab7");
}

TEST(FormatCount, PrintsNothingWhateverItsFlags)
{
    int count = 0;
    EXPECT_EQ(formatted("a%-+ #'05.3n|", &count), "a|");
    EXPECT_EQ(count, 1);
}

TEST(FormatCount, GoesOnWhereTheBufferIsFull)
{
    int count = 0;
    char room[4];
    EXPECT_EQ(psp_snprintf(room, sizeof room, "hello%n %s", &count, "world"), 11);
    EXPECT_STREQ(room, "hel");
    EXPECT_EQ(count, 5);
}

TEST(FormatCount, IncludesTheByteThatIsRefused)
{
    // What follows the refused byte is not looked at.
    int count = -1;
    ByteSink sink{.refused = 2};
    EXPECT_EQ(psp_fnprintf(ByteSink::take, &sink, "ab%n%s%n", &count, "x", &count), eBADWRITE);
    EXPECT_EQ(count, 2);
}

TEST(Format, WorksBeforeTheStart)
{
    ASSERT_EQ(psp_inited, 0);
    EXPECT_EQ(formatted("%s %d %g", "text", 42, 0.5), "text 42 0.5");
}

} // namespace
