// The codes as std::error_code: names, texts, and what they are equal to.
#include "support/psp_test.h"

#include "psp/error.hpp"

#include <map>
#include <set>
#include <string>
#include <system_error>

namespace {

struct Row {
    ZYN_RETCODE value;
    const char* name;
    const char* text;
};

constexpr Row rows[] = {
#define ROW(id, value, text) {id, #id, text},
    ZYN_RETCODE_LIST(ROW)
#undef ROW
};

TEST(Error, HasTheNameAndTheTextOfEveryCode)
{
    for (const Row& row : rows) {
        EXPECT_STREQ(psp::name_of(row.value), row.name);
        EXPECT_STREQ(psp::text_of(row.value), row.text);
        EXPECT_EQ(psp::error(row.value).message(), row.text);
    }
    EXPECT_STREQ(psp::name_of(eNOMEMORY), "eNOMEMORY");
    EXPECT_STREQ(psp::text_of(eNOMEMORY), "memory could not be allocated");
}

TEST(Error, TellsNumbersThatAreNoCodes)
{
    EXPECT_STREQ(psp::name_of(1), "unknown");
    EXPECT_STREQ(psp::text_of(-1), "unknown code");
    EXPECT_EQ(psp::error(4711).message(), "unknown code");
}

TEST(Error, NamesAreKnownToTheCompiler)
{
    static_assert(psp::name_of(sOKAY)[0] == 's');
    static_assert(psp::text_of(eNOMEMORY)[0] == 'm');
}

TEST(Error, IsTrueForEverythingButSuccess)
{
    for (const Row& row : rows)
        EXPECT_EQ(static_cast<bool>(psp::error(row.value)), row.value != sOKAY) << row.name;
}

TEST(Error, IsMadeOfACodeAndComparedWithOne)
{
    const std::error_code error = psp::code::eNOMEMORY;
    EXPECT_EQ(error, psp::error(eNOMEMORY));
    EXPECT_EQ(error, psp::code::eNOMEMORY);
    EXPECT_NE(error, psp::code::eFILEOPEN);
    EXPECT_EQ(error.value(), -10000);
    EXPECT_STREQ(error.category().name(), "zynpsp");
    EXPECT_EQ(&error.category(), &psp::category());
}

TEST(Error, IsNotTheSystemsErrorOfTheSameNumber)
{
    EXPECT_NE(std::error_code(eNOMEMORY, std::system_category()), psp::error(eNOMEMORY));
    EXPECT_NE(std::error_code(eNOMEMORY, std::generic_category()), psp::error(eNOMEMORY));
}

TEST(Error, IsEqualToTheConditionThatMeansTheSame)
{
    const std::map<ZYN_RETCODE, std::errc> same = {
        {sDUPLICATE, std::errc::file_exists},
        {sTIMEOUT, std::errc::timed_out},
        {eNOMEMORY, std::errc::not_enough_memory},
        {eNOTIMPLEMENTED, std::errc::function_not_supported},
        {eINVNULLARG, std::errc::invalid_argument},
        {eINVSTRING, std::errc::invalid_argument},
        {eBADREAD, std::errc::io_error},
        {eBADWRITE, std::errc::io_error},
        {eRANGE, std::errc::result_out_of_range},
        {eINVUNICODE, std::errc::illegal_byte_sequence},
    };
    for (const Row& row : rows) {
        const std::error_code error = psp::error(row.value);
        const auto found = same.find(row.value);
        if (found != same.end())
            EXPECT_EQ(error, found->second) << row.name;
        else
            EXPECT_EQ(error.default_error_condition(),
                      std::error_condition(row.value, psp::category()))
                << row.name;
    }
}

} // namespace
