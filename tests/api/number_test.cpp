// Numbers: what is read, refused and left alone at every edge of the ranges.
#include "psp.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>

namespace {

struct Row {
    const char* text;
    ZYN_RETCODE code;
    const char* value; // in decimal, for codes other than sOKAY not looked at
};

template <class T>
void expect_rows(ZYN_RETCODE (*parse)(const char*, T*), const Row* first, const Row* last)
{
    for (const Row* row = first; row != last; ++row) {
        T value = 77;
        EXPECT_EQ(parse(row->text, &value), row->code) << '"' << row->text << '"';
        EXPECT_EQ(std::to_string(value), row->code == sOKAY ? row->value : "77") << row->text;
        EXPECT_EQ(parse(row->text, nullptr), row->code) << "without a place for the value";
    }
}

TEST(ParseInt64, ReadsTheWholeRangeAndRefusesWhatLiesBeyond)
{
    const Row rows[] = {
        {"9223372036854775806", sOKAY, "9223372036854775806"},
        {"9223372036854775807", sOKAY, "9223372036854775807"},
        {"9223372036854775808", eRANGE, ""},
        {"-9223372036854775808", sOKAY, "-9223372036854775808"},
        {"-9223372036854775809", eRANGE, ""},
        {"99999999999999999999999", eRANGE, ""},
    };
    expect_rows(psp_atoi64, std::begin(rows), std::end(rows));
}

TEST(ParseInt64, TakesZeroOnlyWhenItIsSpelledSo)
{
    const Row rows[] = {{"0", sOKAY, "0"},      {"00", eINVSTRING, ""},  {" 0", eINVSTRING, ""},
                        {"", eINVSTRING, ""},   {"abc", eINVSTRING, ""}, {"0x10", eINVSTRING, ""},
                        {"-0", eINVSTRING, ""}, {"+0", eINVSTRING, ""},  {"0 ", eINVSTRING, ""},
                        {"-", eINVSTRING, ""},  {" ", eINVSTRING, ""}};
    expect_rows(psp_atoi64, std::begin(rows), std::end(rows));
    expect_rows(psp_atoui64, std::begin(rows), std::end(rows));
    expect_rows(psp_atoi32, std::begin(rows), std::end(rows));
    expect_rows(psp_atoui32, std::begin(rows), std::end(rows));
}

TEST(ParseInt64, AcceptsBlanksASignAndTrailingText)
{
    const Row rows[] = {{"12abc", sOKAY, "12"},  {" \t\n5", sOKAY, "5"}, {"+7", sOKAY, "7"},
                        {"-12.9", sOKAY, "-12"}, {"007", sOKAY, "7"},    {"1 2", sOKAY, "1"}};
    expect_rows(psp_atoi64, std::begin(rows), std::end(rows));
}

TEST(ParseInt32, ReadsTheWholeRangeAndRefusesWhatLiesBeyond)
{
    const Row rows[] = {{"2147483647", sOKAY, "2147483647"},   {"2147483648", eRANGE, ""},
                        {"-2147483648", sOKAY, "-2147483648"}, {"-2147483649", eRANGE, ""},
                        {"9223372036854775808", eRANGE, ""},   {"12abc", sOKAY, "12"}};
    expect_rows(psp_atoi32, std::begin(rows), std::end(rows));
}

TEST(ParseUInt64, ReadsTheWholeRangeAndWrapsNegativeNumbers)
{
    const Row rows[] = {{"18446744073709551615", sOKAY, "18446744073709551615"},
                        {"18446744073709551616", eRANGE, ""},
                        {"-1", sOKAY, "18446744073709551615"},
                        {"-18446744073709551615", sOKAY, "1"},
                        {"-18446744073709551616", eRANGE, ""},
                        {" 12abc", sOKAY, "12"}};
    expect_rows(psp_atoui64, std::begin(rows), std::end(rows));
}

TEST(ParseUInt32, ReadsTheWholeRangeAndRefusesWrappedNegativeNumbers)
{
    const Row rows[] = {{"4294967295", sOKAY, "4294967295"},
                        {"4294967296", eRANGE, ""},
                        {"-1", eRANGE, ""},
                        {"18446744073709551616", eRANGE, ""},
                        {"-18446744073709551615", sOKAY, "1"}};
    expect_rows(psp_atoui32, std::begin(rows), std::end(rows));
}

TEST(ParseInteger, IsNotMisledByAnOldErrno)
{
    errno = ERANGE;
    int64_t value = 0;
    EXPECT_EQ(psp_atoi64("9223372036854775807", &value), sOKAY);
    errno = EINVAL;
    EXPECT_EQ(psp_atoi64("0", &value), sOKAY);
    errno = ERANGE;
    uint64_t natural = 0;
    EXPECT_EQ(psp_atoui64("18446744073709551615", &natural), sOKAY);
}

TEST(ParseDouble, ReadsWhatTheCLibraryReads)
{
    const struct {
        const char* text;
        double value;
    } rows[] = {{"1.5", 1.5},     {"-2e3", -2000.0}, {" 0x10", 16.0},
                {"1e308", 1e308}, {"3.5xyz", 3.5},   {"2.2250738585072014e-308", DBL_MIN}};
    for (const auto& row : rows) {
        double value = 77;
        EXPECT_EQ(psp_strtod(row.text, &value), sOKAY) << row.text;
        EXPECT_EQ(value, row.value);
        EXPECT_EQ(psp_atof(row.text), row.value);
        EXPECT_EQ(psp_strtod(row.text, nullptr), sOKAY);
    }
}

TEST(ParseDouble, StoresAPlainZeroAndTextThatIsNoNumberAsZero)
{
    for (const char* text : {"0", "0.0", "-0", "", "abc", "0e5"}) {
        double value = 77;
        EXPECT_EQ(psp_strtod(text, &value), sOKAY) << text;
        EXPECT_EQ(value, 0.0);
        float single = 77;
        EXPECT_EQ(psp_strtof(text, &single), sOKAY) << text;
        EXPECT_EQ(single, 0.0f);
    }
    double negative = 77;
    EXPECT_EQ(psp_strtod("-0", &negative), sOKAY);
    EXPECT_TRUE(std::signbit(negative));
}

TEST(ParseDouble, RefusesOverflowAndUnderflowToZero)
{
    for (const char* text : {"1e309", "-1e309", "1e-400", "-1e-400"}) {
        double value = 77;
        EXPECT_EQ(psp_strtod(text, &value), eRANGE) << text;
        EXPECT_EQ(value, 77.0);
        EXPECT_EQ(psp_strtod(text, nullptr), eRANGE);
    }
}

TEST(ParseDouble, StoresASubnormalNumberThatIsNotZero)
{
    double value = 0;
    EXPECT_EQ(psp_strtod("4.9406564584124654e-324", &value), sOKAY);
    EXPECT_EQ(value, std::numeric_limits<double>::denorm_min());
}

TEST(ParseDouble, StoresSpelledInfinitiesAndNaNs)
{
    double value = 0;
    EXPECT_EQ(psp_strtod("inf", &value), sOKAY);
    EXPECT_EQ(value, HUGE_VAL);
    EXPECT_EQ(psp_strtod("-INFINITY", &value), sOKAY);
    EXPECT_EQ(value, -HUGE_VAL);
    EXPECT_EQ(psp_strtod("nan", &value), sOKAY);
    EXPECT_TRUE(std::isnan(value));
    float single = 0;
    EXPECT_EQ(psp_strtof("-inf", &single), sOKAY);
    EXPECT_EQ(single, -HUGE_VALF);
    EXPECT_EQ(psp_strtof("nan", &single), sOKAY);
    EXPECT_TRUE(std::isnan(single));
}

TEST(ParseFloat, UsesTheLimitsOfSinglePrecision)
{
    float value = 77;
    EXPECT_EQ(psp_strtof("3.4028234e38", &value), sOKAY);
    EXPECT_EQ(value, FLT_MAX);
    value = 77;
    for (const char* text : {"1e39", "-1e39", "1e-50"}) {
        EXPECT_EQ(psp_strtof(text, &value), eRANGE) << text;
        EXPECT_EQ(value, 77.0f);
    }
    EXPECT_EQ(psp_strtof("1.4e-45", &value), sOKAY);
    EXPECT_EQ(value, std::numeric_limits<float>::denorm_min());
}

TEST(ParseDouble, IsNotMisledByAnOldErrno)
{
    errno = ERANGE;
    double value = 77;
    EXPECT_EQ(psp_strtod("0", &value), sOKAY);
    errno = ERANGE;
    EXPECT_EQ(psp_strtod("inf", &value), sOKAY);
    errno = ERANGE;
    EXPECT_EQ(psp_atof("1"), 1.0);
    EXPECT_EQ(errno, 0) << "atof clears errno";
}

TEST(Round, TakesHalvesAwayFromZero)
{
    const struct {
        double value;
        double rounded;
    } rows[] = {{2.5, 3}, {-2.5, -3}, {0.5, 1}, {-0.5, -1},     {2.4, 2},        {-2.4, -2},
                {2.6, 3}, {-2.6, -3}, {0.0, 0}, {1e300, 1e300}, {-1e300, -1e300}};
    for (const auto& row : rows)
        EXPECT_EQ(psp_round(row.value), row.rounded) << row.value;
}

TEST(Round, AddsAHalfAndCutsSoTheSumsOwnRoundingShows)
{
    const double below_half = std::nextafter(0.5, 0.0);
    EXPECT_EQ(psp_round(below_half), std::floor(below_half + 0.5));
    EXPECT_EQ(psp_round(-below_half), std::ceil(-below_half - 0.5));
    EXPECT_EQ(psp_round(4503599627370497.0), std::floor(4503599627370497.0 + 0.5));
}

TEST(Round, KeepsNaNsAndInfinities)
{
    EXPECT_TRUE(std::isnan(psp_round(NAN)));
    EXPECT_EQ(psp_round(HUGE_VAL), HUGE_VAL);
    EXPECT_EQ(psp_round(-HUGE_VAL), -HUGE_VAL);
}

TEST(FloorAndCeil, AreThoseOfTheCLibrary)
{
    for (const float value : {1.5f, -1.5f, 0.0f, -0.0f, 3.0f, 1e20f, -0.25f}) {
        EXPECT_EQ(psp_floorf(value), std::floor(value));
        EXPECT_EQ(psp_ceilf(value), std::ceil(value));
    }
    EXPECT_TRUE(std::isnan(psp_floorf(NAN)));
    EXPECT_TRUE(std::isnan(psp_ceilf(NAN)));
}

// A type value that no function stores, to see what is left alone.
constexpr auto untouched_type = static_cast<ZYN_FP_TYPE>(7);

TEST(Classification, TellsNaNsAndTheirSign)
{
    ZYN_FP_SIGN sign = ZYN_FP_NEGATIVE;
    EXPECT_EQ(psp_isnan(std::copysign(NAN, 1.0), &sign), ZYN_TRUE);
    EXPECT_EQ(sign, ZYN_FP_POSITIVE);
    EXPECT_EQ(psp_isnan(std::copysign(NAN, -1.0), &sign), ZYN_TRUE);
    EXPECT_EQ(sign, ZYN_FP_NEGATIVE);
    EXPECT_EQ(psp_isnanf(std::copysign(NAN, 1.0f), &sign), ZYN_TRUE);
    EXPECT_EQ(sign, ZYN_FP_POSITIVE);
    EXPECT_EQ(psp_isnanf(std::copysign(NAN, -1.0f), &sign), ZYN_TRUE);
    EXPECT_EQ(sign, ZYN_FP_NEGATIVE);
    EXPECT_EQ(psp_isnan(NAN, nullptr), ZYN_TRUE);
    EXPECT_EQ(psp_isnanf(NAN, nullptr), ZYN_TRUE);
}

TEST(Classification, LeavesTheSignAloneForWhatIsNoNaN)
{
    for (const ZYN_FP_SIGN before : {ZYN_FP_NEGATIVE, ZYN_FP_POSITIVE})
        for (const double value : {0.0, -1.5, HUGE_VAL, -HUGE_VAL, 1e30}) {
            ZYN_FP_SIGN sign = before;
            EXPECT_EQ(psp_isnan(value, &sign), ZYN_FALSE);
            EXPECT_EQ(sign, before);
            EXPECT_EQ(psp_isnanf(static_cast<float>(value), &sign), ZYN_FALSE);
            EXPECT_EQ(sign, before);
        }
}

TEST(Classification, CountsNaNsAmongTheValuesThatAreNotFinite)
{
    const struct {
        float value;
        ZYN_FP_SIGN sign;
    } rows[] = {{HUGE_VALF, ZYN_FP_POSITIVE},
                {-HUGE_VALF, ZYN_FP_NEGATIVE},
                {std::copysign(NAN, 1.0f), ZYN_FP_POSITIVE},
                {std::copysign(NAN, -1.0f), ZYN_FP_NEGATIVE}};
    for (const auto& row : rows) {
        ZYN_FP_SIGN sign = row.sign == ZYN_FP_POSITIVE ? ZYN_FP_NEGATIVE : ZYN_FP_POSITIVE;
        EXPECT_EQ(psp_isinff(row.value, &sign), ZYN_TRUE);
        EXPECT_EQ(sign, row.sign);
        EXPECT_EQ(psp_isinff(row.value, nullptr), ZYN_TRUE);
    }
    for (const ZYN_FP_SIGN before : {ZYN_FP_NEGATIVE, ZYN_FP_POSITIVE})
        for (const float value : {0.0f, -1.5f, FLT_MAX, -FLT_MAX}) {
            ZYN_FP_SIGN sign = before;
            EXPECT_EQ(psp_isinff(value, &sign), ZYN_FALSE);
            EXPECT_EQ(sign, before);
        }
}

TEST(Classification, NamesEveryValueThatIsNotFinite)
{
    const struct {
        double value;
        ZYN_FP_TYPE type;
    } rows[] = {{std::copysign(NAN, 1.0), ZYN_FP_POSITIVE_NAN},
                {std::copysign(NAN, -1.0), ZYN_FP_NEGATIVE_NAN},
                {HUGE_VAL, ZYN_FP_POSITIVE_INF},
                {-HUGE_VAL, ZYN_FP_NEGATIVE_INF}};
    for (const auto& row : rows) {
        ZYN_FP_TYPE type = untouched_type;
        EXPECT_EQ(psp_validateDouble(row.value, &type), ZYN_FALSE);
        EXPECT_EQ(type, row.type);
        type = untouched_type;
        EXPECT_EQ(psp_validateFloat(static_cast<float>(row.value), &type), ZYN_FALSE);
        EXPECT_EQ(type, row.type);
        EXPECT_EQ(psp_validateDouble(row.value, nullptr), ZYN_FALSE);
        EXPECT_EQ(psp_validateFloat(static_cast<float>(row.value), nullptr), ZYN_FALSE);
    }
    for (const double value : {0.0, -0.0, 1.5, DBL_MAX, DBL_MIN}) {
        ZYN_FP_TYPE type = untouched_type;
        EXPECT_EQ(psp_validateDouble(value, &type), ZYN_TRUE);
        EXPECT_EQ(type, untouched_type);
    }
    ZYN_FP_TYPE type = untouched_type;
    EXPECT_EQ(psp_validateFloat(FLT_MAX, &type), ZYN_TRUE);
    EXPECT_EQ(type, untouched_type);
}

TEST(Classification, EnumeratorsKeepTheirValues)
{
    EXPECT_EQ(ZYN_FP_NEGATIVE, 0);
    EXPECT_EQ(ZYN_FP_POSITIVE, 1);
    EXPECT_EQ(ZYN_FP_POSITIVE_NAN, 1);
    EXPECT_EQ(ZYN_FP_NEGATIVE_NAN, 2);
    EXPECT_EQ(ZYN_FP_POSITIVE_INF, 3);
    EXPECT_EQ(ZYN_FP_NEGATIVE_INF, 4);
}

} // namespace
