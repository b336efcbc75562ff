// Byte order, highest bit, bit reversal and alignment, each against a plain restatement.
#include "psp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

namespace {

template <class T>
T bytes_reversed(T value)
{
    unsigned char bytes[sizeof(T)];
    std::memcpy(bytes, &value, sizeof value);
    std::reverse(bytes, bytes + sizeof value);
    std::memcpy(&value, bytes, sizeof value);
    return value;
}

template <class T>
bool same_bytes(const T& a, const T& b)
{
    return std::memcmp(&a, &b, sizeof(T)) == 0;
}

template <class T>
void expect_swap(void (*swap)(T*), T value)
{
    T swapped = value;
    swap(&swapped);
    EXPECT_TRUE(same_bytes(swapped, bytes_reversed(value)));
    swap(&swapped);
    EXPECT_TRUE(same_bytes(swapped, value)) << "a second swap restores the value";
}

uint32_t highest_bit_by_counting(uint64_t value)
{
    uint32_t position = 0;
    for (; value != 0; value /= 2)
        ++position;
    return position;
}

TEST(ByteOrder, SwapsTheBytesOfUnsignedIntegers)
{
    uint16_t two = 0x0102;
    psp_swaporderUInt16(&two);
    EXPECT_EQ(two, 0x0201);
    uint32_t four = 0x01020304;
    psp_swaporderUInt32(&four);
    EXPECT_EQ(four, 0x04030201u);
    uint64_t eight = 0x0102030405060708;
    psp_swaporderUInt64(&eight);
    EXPECT_EQ(eight, 0x0807060504030201u);
}

TEST(ByteOrder, SwapsAndRestoresEveryTypeOfRandomValue)
{
    std::mt19937_64 random(1);
    for (int i = 0; i < 1000; ++i) {
        const uint64_t bits = random();
        expect_swap(psp_swaporderUInt16, static_cast<uint16_t>(bits));
        expect_swap(psp_swaporderUInt32, static_cast<uint32_t>(bits));
        expect_swap(psp_swaporderUInt64, bits);
        expect_swap(psp_swaporderInt16, static_cast<int16_t>(bits));
        expect_swap(psp_swaporderInt32, static_cast<int32_t>(bits));
        expect_swap(psp_swaporderInt64, static_cast<int64_t>(bits));
    }
}

TEST(ByteOrder, SwapsTheStorageOfFloatsWhateverBitsTheyHold)
{
    std::mt19937_64 random(2);
    for (int i = 0; i < 1000; ++i) {
        const uint64_t bits = random();
        uint32_t single_bits = static_cast<uint32_t>(bits);
        float single;
        std::memcpy(&single, &single_bits, sizeof single);
        expect_swap(psp_swaporderFloat, single);
        double twice;
        std::memcpy(&twice, &bits, sizeof twice);
        expect_swap(psp_swaporderDouble, twice);
    }
}

TEST(HighestBit, OfZeroIsZero)
{
    EXPECT_EQ(psp_bitFirstSet(0), 0u);
    EXPECT_EQ(psp_bitFirstSet64(0), 0u);
}

TEST(HighestBit, CountsFromOne)
{
    EXPECT_EQ(psp_bitFirstSet(1), 1u);
    EXPECT_EQ(psp_bitFirstSet(0x80), 8u);
    EXPECT_EQ(psp_bitFirstSet(0xFFFF), 16u);
    EXPECT_EQ(psp_bitFirstSet(0x10000), 17u);
    EXPECT_EQ(psp_bitFirstSet(0x80000000), 32u);
    EXPECT_EQ(psp_bitFirstSet(0xFFFFFFFF), 32u);
    EXPECT_EQ(psp_bitFirstSet64(0x100000000), 33u);
    EXPECT_EQ(psp_bitFirstSet64(UINT64_MAX), 64u);
}

TEST(HighestBit, OfRandomValuesIsTheOneByCounting)
{
    std::mt19937_64 random(4);
    for (int i = 0; i < 10'000; ++i) {
        const uint64_t value = random() >> (random() & 63);
        EXPECT_EQ(psp_bitFirstSet64(value), highest_bit_by_counting(value)) << value;
        const auto low = static_cast<uint32_t>(value);
        EXPECT_EQ(psp_bitFirstSet(low), highest_bit_by_counting(low)) << low;
    }
}

TEST(HighestBit, IsFoundAroundEveryPowerOfTwo)
{
    for (int bit = 0; bit < 64; ++bit) {
        const uint64_t power = uint64_t{1} << bit;
        for (const uint64_t value : {power - 1, power, power + 1, power | (power >> 1)}) {
            EXPECT_EQ(psp_bitFirstSet64(value), highest_bit_by_counting(value)) << value;
            const auto low = static_cast<uint32_t>(value);
            EXPECT_EQ(psp_bitFirstSet(low), highest_bit_by_counting(low)) << low;
        }
    }
}

TEST(BitReversal, MovesEachBitToTheOtherEnd)
{
    EXPECT_EQ(psp_bitReverse64(1), 0x8000000000000000u);
    EXPECT_EQ(psp_bitReverse64(0x8000000000000000u), 1u);
    for (int bit = 0; bit < 64; ++bit)
        EXPECT_EQ(psp_bitReverse64(uint64_t{1} << bit), uint64_t{1} << (63 - bit));
}

TEST(BitReversal, MovesTheBitsOfRandomValuesOneByOne)
{
    std::mt19937_64 random(5);
    for (int i = 0; i < 1000; ++i) {
        const uint64_t value = random();
        uint64_t reversed = 0;
        for (int bit = 0; bit < 64; ++bit)
            reversed |= (value >> bit & 1) << (63 - bit);
        EXPECT_EQ(psp_bitReverse64(value), reversed) << value;
    }
}

TEST(BitReversal, AppliedTwiceRestoresTheValue)
{
    std::mt19937_64 random(3);
    for (int i = 0; i < 1000; ++i) {
        const uint64_t value = random();
        EXPECT_EQ(psp_bitReverse64(psp_bitReverse64(value)), value);
    }
}

TEST(Alignment, RoundsAnOffsetUpToTheTypesAlignment)
{
    EXPECT_EQ(psp_align(13, ALN_INT32), 16u);
    EXPECT_EQ(psp_align(16, ALN_INT32), 16u);
    EXPECT_EQ(psp_align(13, ALN_CHAR), 13u);
    EXPECT_EQ(psp_align(9, ALN_WCHAR), 12u);
    EXPECT_EQ(psp_align(9, ALN_DOUBLE), 16u);
}

TEST(Alignment, OfEveryTypeIsItsSize)
{
    const struct {
        ALIGN_TYPE type;
        uint32_t alignment;
    } rows[] = {{ALN_CHAR, 1},  {ALN_INT16, 2}, {ALN_WCHAR, 4}, {ALN_INT32, 4},
                {ALN_FLOAT, 4}, {ALN_INT64, 8}, {ALN_DOUBLE, 8}};
    for (const auto& row : rows)
        for (uint32_t offset = 0; offset < 64; ++offset) {
            uint32_t expected = offset;
            while (expected % row.alignment != 0)
                ++expected;
            EXPECT_EQ(psp_align(offset, row.type), expected) << offset << " type " << row.type;
        }
}

TEST(Alignment, WrapsInThirtyTwoBits)
{
    EXPECT_EQ(psp_align(0xFFFFFFFF, ALN_INT64), 0u);
    EXPECT_EQ(psp_align(0xFFFFFFF8, ALN_INT64), 0xFFFFFFF8u);
}

TEST(Alignment, OfWhatIsNoTypeIsAnyOffset)
{
    for (uint32_t offset = 0; offset < 16; ++offset)
        EXPECT_EQ(psp_align(offset, static_cast<ALIGN_TYPE>(ALN_DOUBLE + 1)), offset);
}

TEST(Alignment, OfABufferSizeIsEight)
{
    EXPECT_EQ(psp_alignBufferSize(0), 0u);
    EXPECT_EQ(psp_alignBufferSize(1), 8u);
    EXPECT_EQ(psp_alignBufferSize(8), 8u);
    EXPECT_EQ(psp_alignBufferSize(9), 16u);
    EXPECT_EQ(psp_alignBufferSize(0x1FFFFFFF9), 0x200000000u);
}

TEST(Alignment, EnumeratorsKeepTheirValues)
{
    EXPECT_EQ(ALN_CHAR, 0);
    EXPECT_EQ(ALN_INT16, 1);
    EXPECT_EQ(ALN_WCHAR, 2);
    EXPECT_EQ(ALN_INT32, 3);
    EXPECT_EQ(ALN_FLOAT, 4);
    EXPECT_EQ(ALN_INT64, 5);
    EXPECT_EQ(ALN_DOUBLE, 6);
}

} // namespace
