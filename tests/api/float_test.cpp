// Floating conversions: what single values must look like, worked out by hand, and random values of
// every magnitude beside a plain model that computes in `long double`.
#include "support/float_model.h"
#include "support/format_test.h"
#include "support/psp_test.h"

#include <gtest/gtest.h>

#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <string>

using namespace psptest;

// The engine's formats are more, and other, than the compiler knows.
#pragma GCC diagnostic ignored "-Wformat"

namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();
const double not_a_number = std::copysign(std::numeric_limits<double>::quiet_NaN(), 1.0);

// ---- Fixed notation ----

TEST(FloatFixed, HasSixDigitsUnlessToldOtherwise)
{
    EXPECT_EQ(formatted("%f|%f|%f|%f", 1.5, 0.0, 123456.789, 1e-7),
              "1.500000|0.000000|123456.789000|0.000000");
    EXPECT_EQ(formatted("%.2f|%.1f|%.9f|%.*f|%.*f", 1.005, 0.25, 0.5, 3, 2.0, -2, 2.0),
              "1.00|0.3|0.500000000|2.000|2.000000");
}

TEST(FloatFixed, RoundsHalvesUp)
{
    EXPECT_EQ(formatted("%.0f|%.0f|%.0f|%.0f|%.0f", 0.5, 1.5, 2.5, 3.5, -2.5), "1|2|3|4|-3");
    EXPECT_EQ(formatted("%.0f|%.0f|%.0f", 0.49999999999999994, 2.4999999999999996, 0.0), "0|2|0");
    EXPECT_EQ(formatted("%.1f|%.2f|%.3f|%.2f", 0.25, 0.125, 0.0625, 0.375), "0.3|0.13|0.063|0.38");
    EXPECT_EQ(formatted("%.1f|%.0f|%.2f|%f", 0.96, 9.5, 9.999, 0.9999999), "1.0|10|10.00|1.000000");
    EXPECT_EQ(formatted("%.0f|%.0f", 4503599627370495.5, 9007199254740991.0),
              "4503599627370496|9007199254740991");
}

TEST(FloatFixed, HasNoPointWithoutDigitsBehindItUnlessAsked)
{
    EXPECT_EQ(formatted("%.0f|%.f|%#.0f|%#.f|%#.1f", 3.0, 3.0, 3.0, 0.0, 3.0), "3|3|3.|0.|3.0");
}

TEST(FloatFixed, HasNineteenDigitsAtMost)
{
    const std::string zeros(18, '0');
    EXPECT_EQ(formatted("%.30f|%.19f|%.20f|%.100f", 0.5, 0.5, 0.5, 1.0),
              "0.5" + zeros + "|0.5" + zeros + "|0.5" + zeros + "|1." + zeros + "0");
    EXPECT_EQ(formatted("%.2147483647f", 0.5), "0.5" + zeros);
    EXPECT_EQ(formatted("%.19f", 0x1p-10), "0.0009765625000000000");
    EXPECT_EQ(formatted("%25.30f|%-25.30f|", 0.5, 0.5),
              "    0.5" + zeros + "|0.5" + zeros + "    |");
}

TEST(FloatFixed, ReachesUpToTwoToThe64)
{
    EXPECT_EQ(formatted("%.0f|%.1f", 1e19, 0x1.fffffffffffffp63),
              "10000000000000000000|18446744073709549568.0");
    EXPECT_EQ(formatted("%.0Lf", 18446744073709551614.0L), "18446744073709551614");
    EXPECT_EQ(formatted("%Lf", -18446744073709551614.0L), "-18446744073709551614.000000");
    for (const long double value : {18446744073709551615.0L, 0x1p64L, -0x1p64L, 1e20L, 1e4000L}) {
        EXPECT_EQ(format_failure("ab%Lfc", value), (FormatFailure{eRANGE, "ab"}));
        EXPECT_EQ(format_failure("%d%.0LF", 1, value), (FormatFailure{eRANGE, "1"}));
        EXPECT_EQ(format_failure("%La", value), (FormatFailure{eRANGE, ""}));
    }
    EXPECT_EQ(format_failure("%f", 1e20), (FormatFailure{eRANGE, ""}));
    EXPECT_EQ(format_failure("%30f", -1e300), (FormatFailure{eRANGE, ""}));
}

TEST(FloatFixed, IsWhatTheHexadecimalConversionsPrint)
{
    EXPECT_EQ(formatted("%a|%A|%.2a|%#.0A|%a", 1.5, 1.5, 2.0, 2.0, infinity),
              "1.500000|1.500000|2.00|2.|inf");
    EXPECT_EQ(formatted("%A|%A", infinity, not_a_number), "INF|NAN");
    EXPECT_EQ(formatted("%La|%08.2a", 1.5L, -1.5), "1.500000|-0001.50");
}

// ---- Exponent notation ----

TEST(FloatExponent, HasOneDigitBeforeThePoint)
{
    EXPECT_EQ(formatted("%e|%e|%E|%e", 0.0, 123.456, 0.05, 1e20),
              "0.000000e+00|1.234560e+02|5.000000E-02|1.000000e+20");
    EXPECT_EQ(formatted("%.0e|%#.0e|%.1e|%.3E", 12345.0, 12345.0, 12345.0, 12345.0),
              "1e+04|1.e+04|1.2e+04|1.235E+04");
    EXPECT_EQ(formatted("%e|%e|%e", 1.0, 10.0, 9.999999), "1.000000e+00|1.000000e+01|9.999999e+00");
    EXPECT_EQ(formatted("%.0e", -2.5), "-3e+00");
}

TEST(FloatExponent, GrowsWhenRoundingReachesTen)
{
    EXPECT_EQ(formatted("%e|%.0e|%.2e|%.0e", 9.9999999, 9.5, 999.9, 0.096),
              "1.000000e+01|1e+01|1.00e+03|1e-01");
    EXPECT_EQ(formatted("%.1e|%.0e", 9.96e99, 9.6e-10), "1.0e+100|1e-09");
}

TEST(FloatExponent, HasTwoOrThreeDigits)
{
    EXPECT_EQ(formatted("%.0e|%.0e|%.0e|%.0e", 1e9, 1e99, 1e100, 1e300),
              "1e+09|1e+99|1e+100|1e+300");
    EXPECT_EQ(formatted("%.0e|%.0e|%.0e", 2e-9, 2e-99, 2e-100), "2e-09|2e-99|2e-100");
    EXPECT_EQ(formatted("%.3e|%.3e", 1.7976931348623157e308, 4.9406564584124654e-324),
              "1.798e+308|4.941e-324");
}

TEST(FloatExponent, AboveThreeDigitsKeepsTheLowest)
{
    EXPECT_EQ(formatted("%.0Le|%.0Le|%.0Le|%.0LE", 2e1005L, 2e4321L, 2e-1005L, 2e-4321L),
              "2e+005|2e+321|2e-005|2E-321");
    EXPECT_EQ(formatted("%.0Le|%.0Le|%12.0Le|", 2e999L, 2e1000L, 2e1000L),
              "2e+999|2e+000|      2e+000|");
}

TEST(FloatExponent, HasNineteenDigitsAtMost)
{
    EXPECT_EQ(formatted("%.25e|%.19E", 0.5, 2.0),
              "5." + std::string(19, '0') + "e-01|2." + std::string(19, '0') + "E+00");
}

// ---- General style ----

TEST(FloatGeneral, TakesTheNotationThatTheExponentAsksFor)
{
    EXPECT_EQ(formatted("%g|%g|%g|%g", 0.0001, 0.00001, 100000.0, 1000000.0),
              "0.0001|1e-05|100000|1e+06");
    EXPECT_EQ(formatted("%g|%g|%g|%g|%g", 0.0, 1.0, -1.5, 123456.0, 1234567.0),
              "0|1|-1.5|123456|1.23457e+06");
    EXPECT_EQ(formatted("%G|%G|%G", 0.00001, 1e10, 1.5), "1E-05|1E+10|1.5");
    EXPECT_EQ(formatted("%.3g|%.3g|%.3g|%.3g", 999.4, 999.6, 1000.0, 0.00012345),
              "999|1e+03|1e+03|0.000123");
    EXPECT_EQ(formatted("%g|%g", 999999.5, 0.000099999999), "1e+06|0.0001");
}

TEST(FloatGeneral, CountsPrecisionZeroAsOne)
{
    EXPECT_EQ(formatted("%.0g|%.1g|%.g|%.0G|%.*g", 2.5, 2.5, 0.25, 25.0, 0, 2.0),
              "3|3|0.3|3E+01|2");
    EXPECT_EQ(formatted("%#.0g|%#.g", 3.0, 30.0), "3.|3.e+01");
}

TEST(FloatGeneral, DropsTrailingZerosUnlessInAlternateForm)
{
    EXPECT_EQ(formatted("%g|%g|%g|%g", 1.50, 100.0, 1.25e10, 0.5), "1.5|100|1.25e+10|0.5");
    EXPECT_EQ(formatted("%#g|%#g|%#g|%#g|%#.3g", 1.0, 1e10, 0.0, 100000.0, 10.0),
              "1.00000|1.00000e+10|0.00000|100000.|10.0");
    EXPECT_EQ(formatted("%.10g|%.17g|%#.10g", 1.0 / 4, 0.5, 0.25), "0.25|0.5|0.2500000000");
}

TEST(FloatGeneral, HasNineteenDigitsBehindThePointAtMost)
{
    EXPECT_EQ(formatted("%.40g|%#.40g", 1.0, 1.0), "1|1." + std::string(19, '0'));
    EXPECT_EQ(formatted("%.40g", 0x1p-13), "0.0001220703125");
    EXPECT_EQ(formatted("%.40g", 0x1p-10), "0.0009765625");
    EXPECT_EQ(formatted("%.20g", 1e19), "10000000000000000000");
    EXPECT_EQ(formatted("%.20g", 1e20), "1e+20");
}

TEST(FloatGeneral, FailsWhereItChoosesFixedNotationBeyondItsRange)
{
    // Below 10^20 the exponent asks for fixed notation, from 2^64 on that cannot print it.
    EXPECT_EQ(format_failure("a%.20g", 5e19), (FormatFailure{eRANGE, "a"}));
    EXPECT_EQ(format_failure("a%.99g", 0x1p64), (FormatFailure{eRANGE, "a"}));
    EXPECT_EQ(formatted("%.19g", 5e19), "5e+19");
}

// ---- Sign, padding, words ----

TEST(FloatSign, BelongsToValuesBelowZero)
{
    EXPECT_EQ(formatted("%f|%g|%e|%.0f", -0.0, -0.0, -0.0, -0.0), "0.000000|0|0.000000e+00|0");
    EXPECT_EQ(formatted("%+f|% f|%+f|% f", -0.0, -0.0, 1.0, 1.0),
              "+0.000000| 0.000000|+1.000000| 1.000000");
    EXPECT_EQ(formatted("%+ .1f|% +.1f|%+.1f|% .1f", 1.0, 1.0, -1.0, -1.0), "+1.0|+1.0|-1.0|-1.0");
    EXPECT_EQ(formatted("%.0f|%f|%.1f|%Lf", -0.25, -1e-10, -0.01, -1e-4000L),
              "-0|-0.000000|-0.0|-0.000000");
}

TEST(FloatPadding, GoesWhereTheFlagsSay)
{
    EXPECT_EQ(formatted("%8.2f|%-8.2f|%08.2f|%-08.2f|", 1.5, 1.5, 1.5, 1.5),
              "    1.50|1.50    |00001.50|1.50    |");
    EXPECT_EQ(formatted("%08.2f|%+08.2f|% 08.2f|%8.2f|%+8.2f", -1.5, 1.5, 1.5, -1.5, 1.5),
              "-0001.50|+0001.50| 0001.50|   -1.50|   +1.50");
    EXPECT_EQ(formatted("%4.2f|%04.2f|%03.2f|%05.2f", 1.5, 1.5, -1.5, -1.5),
              "1.50|1.50|-1.50|-1.50");
    EXPECT_EQ(formatted("%12.1e|%-12.1e|%012.1e|%+012.1e", 15.0, 15.0, 15.0, 15.0),
              "     1.5e+01|1.5e+01     |000001.5e+01|+00001.5e+01");
    EXPECT_EQ(formatted("%6g|%-6g|%06g|%*g|%0*g|", 1.5, 1.5, -1.5, -6, 1.5, 6, 1.5),
              "   1.5|1.5   |-001.5|1.5   |0001.5|");
}

TEST(FloatWord, StandsForWhatIsNoNumber)
{
    EXPECT_EQ(
        formatted("%f|%e|%g|%F|%E|%G", infinity, infinity, infinity, infinity, infinity, infinity),
        "inf|inf|inf|INF|INF|INF");
    EXPECT_EQ(formatted("%f|%F|%g|%E", not_a_number, not_a_number, not_a_number, not_a_number),
              "nan|NAN|nan|NAN");
    EXPECT_EQ(formatted("%Lf|%LG", std::numeric_limits<long double>::infinity(),
                        std::numeric_limits<long double>::quiet_NaN()),
              "inf|NAN");
}

TEST(FloatWord, HasASignAndBlanksOnly)
{
    EXPECT_EQ(formatted("%f|%+f|% f|%F", -infinity, infinity, infinity, -infinity),
              "-inf|+inf| inf|-INF");
    EXPECT_EQ(formatted("%+f|% f|%f|%+f|%f", not_a_number, not_a_number, -not_a_number,
                        -not_a_number, not_a_number),
              "+nan| nan|nan|+nan|nan");
    EXPECT_EQ(formatted("%05f|%-5f|%-05f|%6f|%+06f|%-+6f|", infinity, infinity, infinity, -infinity,
                        infinity, not_a_number),
              "  inf|inf  |inf  |  -inf|  +inf|+nan  |");
    EXPECT_EQ(formatted("%.0f|%.9f|%#f|%'f|%.1e|%2f", infinity, infinity, infinity, infinity,
                        infinity, infinity),
              "inf|inf|inf|inf|inf|inf");
}

TEST(FloatWord, EndsWhereTheOutputRefusesAByte)
{
    for (const char* format : {"%+6f|", "%-+6f|"}) {
        const std::string whole = formatted(format, infinity);
        ASSERT_EQ(whole.size(), 7u);
        for (std::size_t refused = 0; refused < whole.size(); refused++)
            EXPECT_EQ(start_of(refused, format, infinity), whole.substr(0, refused));
    }
}

TEST(FloatArgument, OfALongDoubleIsTakenWhole)
{
    EXPECT_EQ(formatted("%Lf %d %Lg %s", 1.5L, 7, 0x1p-70L, "x"), "1.500000 7 8.47033e-22 x");
    EXPECT_EQ(formatted("%.19Lf", 1.0L + 0x1p-63L), "1.0000000000000000001");
    EXPECT_EQ(formatted("%.0Lf", 9223372036854775807.0L), "9223372036854775807");
    EXPECT_EQ(
        formatted("%f %f %f %f %f %f %f %f %f %d", 1., 2., 3., 4., 5., 6., 7., 8., 9., 10),
        "1.000000 2.000000 3.000000 4.000000 5.000000 6.000000 7.000000 8.000000 9.000000 10");
}

// What the processor has no value for is no number: with an exponent the top bit of the mantissa
// must be set. Without one it may be.
TEST(FloatArgument, OfALongDoubleMustBeANumberToTheProcessor)
{
    const auto made_of = [](uint16_t head, uint64_t mantissa) {
        long double value = 0;
        std::memcpy(&value, &mantissa, sizeof mantissa);
        std::memcpy(reinterpret_cast<char*>(&value) + sizeof mantissa, &head, sizeof head);
        return value;
    };
    constexpr uint64_t top = uint64_t{1} << 63;
    for (const uint16_t head : {1, 0x3FFF, 0x7FFE, 0x7FFF})
        for (const uint64_t mantissa : {uint64_t{0}, uint64_t{1}, top / 2, top - 1})
            EXPECT_EQ(formatted("%.0Le", made_of(head, mantissa)), "nan")
                << head << ' ' << mantissa;
    EXPECT_EQ(formatted("%.0Lf|%LG", made_of(0x3FFF, top), made_of(0x7FFF, top)), "1|INF");
    EXPECT_EQ(formatted("%Lf|%Lf", made_of(0x7FFF, top + 1), made_of(0x7FFF, ~uint64_t{0})),
              "nan|nan");
    // The least exponent is the same with and without the top bit.
    EXPECT_EQ(formatted("%.9Le", made_of(0, top)), formatted("%.9Le", made_of(1, top)));
}

// The nearest to a hundredth is a little less; a hundred of it are 1 in 64 bits.
TEST(FloatArgument, WhoseDigitsRoundUpToAPowerOfTwoKeepsThem)
{
    EXPECT_EQ(formatted("%.2Lf|%.1Lf|%.3Lf", 0.01L, 0.01L, 0.01L), "0.01|0.0|0.010");
}

TEST(FloatArgument, IsNotGroupedInTheCLocale)
{
    EXPECT_EQ(formatted("%'f|%'.0f|%'g", 1234567.5, 1234567.0, 1234567.0),
              "1234567.500000|1234567|1.23457e+06");
}

// ---- Beside the model ----

class FloatModelTest : public ::testing::TestWithParam<uint32_t> {
  protected:
    uint32_t below(uint32_t end)
    {
        return random_() % end;
    }

    uint64_t random64()
    {
        return static_cast<uint64_t>(random_()) << 32 | random_();
    }

    // The model steps through the powers of ten one by one: most values stay near 1.
    double any_double()
    {
        switch (below(8)) {
        case 0: // all of them
            return std::bit_cast<double>(random64());
        case 1: // halves
            return static_cast<double>(below(4000)) / 2;
        case 2: // just at, below and above a power of ten
            return std::nextafter(std::pow(10.0, static_cast<int>(below(44)) - 20),
                                  below(2) == 0 ? 0 : infinity);
        case 3:
            return std::pow(10.0, static_cast<int>(below(44)) - 20);
        case 4: // short decimals
            return static_cast<double>(below(1000000)) / std::pow(10.0, below(9));
        case 5: // whole numbers of every length
            return static_cast<double>(random64() >> below(64));
        default:
            return std::ldexp(static_cast<double>(random64()), -static_cast<int>(below(128)));
        }
    }

    // Powers of ten must be normal numbers for their digits to be told.
    long double any_long_double()
    {
        if (below(16) == 0)
            return std::ldexp(static_cast<long double>(random64() | 1),
                              static_cast<int>(below(32600)) - 16300);
        return std::ldexp(static_cast<long double>(random64()), static_cast<int>(below(140)) - 130);
    }

    Directive any_directive()
    {
        Directive d;
        d.left = below(4) == 0;
        d.plus = below(4) == 0;
        d.space = below(4) == 0;
        d.alt = below(4) == 0;
        d.zero = below(4) == 0;
        d.group = below(4) == 0;
        d.width = below(2) == 0 ? 0 : below(36);
        if (below(4) != 0)
            d.precision = below(4) == 0 ? below(30) : below(8);
        d.type = "fFeEgGaA"[below(8)];
        return d;
    }

    static std::string told(const Directive& d, bool is_long)
    {
        std::string fmt = "%";
        fmt += d.left ? "-" : "";
        fmt += d.plus ? "+" : "";
        fmt += d.space ? " " : "";
        fmt += d.alt ? "#" : "";
        fmt += d.zero ? "0" : "";
        fmt += d.group ? "'" : "";
        fmt += d.width != 0 ? std::to_string(d.width) : "";
        if (d.precision)
            fmt += "." + std::to_string(*d.precision);
        return fmt + (is_long ? "L" : "") + d.type;
    }

    template <class Float>
    void check(const Directive& directive, Float value, bool is_long)
    {
        const std::string fmt = told(directive, is_long);
        const auto expected = FloatModel(directive, {}).format(value);
        char room[100];
        const int length = psp_snprintf(room, sizeof room, fmt.c_str(), value);
        ByteSink sink;
        const ZYN_RETCODE code = psp_fnprintf(ByteSink::take, &sink, fmt.c_str(), value);
        char shown[80];
        std::snprintf(shown, sizeof shown, "%s of %.25Lg", fmt.c_str(),
                      static_cast<long double>(value));
        ASSERT_EQ(code, expected ? sOKAY : eRANGE) << shown;
        ASSERT_EQ(sink.text, expected.value_or("")) << shown;
        ASSERT_EQ(length, expected ? static_cast<int>(expected->size()) : -1) << shown;
        if (expected) {
            ASSERT_EQ(room, *expected) << shown;
        }
    }

    std::mt19937 random_{GetParam()};
};

constexpr int rounds = under_asan || under_tsan ? 10000 : 60000;

TEST_P(FloatModelTest, AgreesOnDoubles)
{
    for (int i = 0; i < rounds && !HasFatalFailure(); i++)
        check(any_directive(), below(2) == 0 ? any_double() : -any_double(), false);
}

TEST_P(FloatModelTest, AgreesOnLongDoubles)
{
    for (int i = 0; i < rounds && !HasFatalFailure(); i++)
        check(any_directive(), below(2) == 0 ? any_long_double() : -any_long_double(), true);
}

// Where a fraction just fits into 64 bits, or just does not, and where all digits are asked for.
TEST_P(FloatModelTest, AgreesOnLongFractions)
{
    Directive directive;
    directive.type = 'f';
    for (int i = 0; i < rounds / 4 && !HasFatalFailure(); i++) {
        directive.precision = 14 + below(6);
        const auto value = std::ldexp(static_cast<long double>(random64() >> below(12)),
                                      static_cast<int>(below(24)) - 80);
        check(directive, value, true);
        check(directive, static_cast<double>(value), false);
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, FloatModelTest, ::testing::Range(1u, 3u));

// The least long doubles are beyond the powers of ten that the processor has in full; they are
// printed all the same.
TEST(FloatArgument, MayBeTheLeastOfLongDoubles)
{
    for (int exponent = -16445; exponent < -16300; exponent++) {
        const long double value = std::ldexp(1.0L, exponent);
        const std::string text = formatted("%.9Le", value);
        ASSERT_EQ(text.size(), 16u) << text;
        ASSERT_EQ(text[11], 'e') << text;
        const std::string whole = text.substr(0, 12) + "-4" + text.substr(13);
        const long double read = std::strtold(whole.c_str(), nullptr);
        const bool near = std::fabs(read / value - 1) < 1e-8L || value < LDBL_MIN;
        EXPECT_TRUE(near) << text;
    }
}

} // namespace
