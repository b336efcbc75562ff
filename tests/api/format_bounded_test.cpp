// Formatting into bounded strings: what is stored, what is told, and the limit of lengths.
#include "support/format_test.h"
#include "support/psp_test.h"

#include <gtest/gtest.h>

#include <climits>
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

const void* const no_pointer = nullptr;

TEST(FormatBounded, StoresWhatFitsAndTellsTheWholeLength)
{
    char room[8];
    for (std::size_t size = 0; size <= sizeof room; size++) {
        std::memset(room, 'Z', sizeof room);
        EXPECT_EQ(psp_snprintf(room, size, "hello"), 5);
        std::string wanted = size != 0 ? std::string("hello").substr(0, size - 1) + '\0' : "";
        wanted.resize(sizeof room, 'Z');
        EXPECT_EQ(std::string(room, sizeof room), wanted) << size;
    }
}

TEST(FormatBounded, MeasuresWithoutABuffer)
{
    EXPECT_EQ(measured("hello %d", 42), 8);
    EXPECT_EQ(psp_snprintf(nullptr, 100, "hello %d", 42), 8);
    EXPECT_EQ(measured("%s", ""), 0);
}

TEST(FormatBounded, MayCutACharacter)
{
    char room[4];
    EXPECT_EQ(psp_snprintf(room, sizeof room, "ab\xE2\x82\xAC"), 5);
    EXPECT_STREQ(room, "ab\xE2");
}

TEST(FormatBounded, DoesNotEndAnOutputThatFailed)
{
    char room[8];
    std::memset(room, 'Z', sizeof room);
    EXPECT_EQ(psp_snprintf(room, sizeof room, "abc%2147483648d", 1), -1);
    EXPECT_EQ(std::string(room, sizeof room), "abcZZZZZ");
    EXPECT_EQ(psp_snprintf(room, 3, "xyz%f", 1e20), -1);
    EXPECT_EQ(std::string(room, sizeof room), "xycZZZZZ");
}

TEST(FormatBounded, KeepsToItsRoomHoweverTheOutputIsMade)
{
    const std::string wanted = "     7|00007|0x000ff|7    |left | right|(nil)|1.50|%x";
    for (std::size_t size = 1; size < wanted.size() + 3; size++) {
        std::vector<char> room(size, 'Z'); // a checker sees a byte too many
        EXPECT_EQ(psp_snprintf(room.data(), size, "%6d|%05d|%#07x|%-5d|%-5s|%6s|%p|%.2f|%%%c", 7, 7,
                               255, 7, "left", "right", no_pointer, 1.5, 'x'),
                  static_cast<int>(wanted.size()));
        EXPECT_EQ(std::string(room.data()), wanted.substr(0, size - 1));
    }
}

TEST(FormatBounded, TellsLengthsUpToTheLimit)
{
    EXPECT_EQ(measured("%2147483645d", 1), 2147483645);
    EXPECT_EQ(measured("%2147483646d", 1), -1);
    EXPECT_EQ(measured("%2147483647d", 1), -1);
    EXPECT_EQ(measured("%-2147483645d", 1), 2147483645);
    EXPECT_EQ(measured("%02147483645d", 1), 2147483645);
    EXPECT_EQ(measured("%.2147483645d", 1), 2147483645);
    EXPECT_EQ(measured("%.2147483646x", 1), -1);
    EXPECT_EQ(measured("%2147483645s", "x"), 2147483645);
    EXPECT_EQ(measured("%-2147483646s", "x"), -1);
    EXPECT_EQ(measured("%2147483645f", 1.5), 2147483645);
    EXPECT_EQ(measured("%02147483646f", 1.5), -1);
    EXPECT_EQ(measured("%2147483645p", no_pointer), 2147483645);
    EXPECT_EQ(measured("%2147483644d%c", 1, 'x'), 2147483645);
    EXPECT_EQ(measured("%2147483644d%s", 1, "xy"), -1);
    EXPECT_EQ(measured("x%1000000000d%1147483644d", 1, 2), 2147483645);
    EXPECT_EQ(measured("x%1000000000d%1147483645d", 1, 2), -1);
}

TEST(FormatBounded, DoesNotWrapAtLengthsOf32Bits)
{
    EXPECT_EQ(measured("%2147483647s%2147483647s%7s", "", "", ""), -1); // 2^32 + 5
    EXPECT_EQ(measured("%2147483647s%2147483647s%2s", "", "", ""), -1); // 2^32
    EXPECT_EQ(measured("%*s%*s%9s", INT_MIN, "", INT_MIN, "", ""), -1);
}

TEST(FormatBounded, EndsAnOutputThatIsOnlyTooLong)
{
    char room[8];
    std::memset(room, 'Z', sizeof room);
    EXPECT_EQ(psp_snprintf(room, 4, "%-2147483646d", 1), -1);
    EXPECT_EQ(std::string(room, sizeof room), std::string("1  \0ZZZZ", 8));
    std::memset(room, 'Z', sizeof room);
    EXPECT_EQ(psp_snprintf(room, 4, "%-2147483645d", 1), 2147483645);
    EXPECT_EQ(std::string(room, sizeof room), std::string("1  \0ZZZZ", 8));
}

} // namespace
