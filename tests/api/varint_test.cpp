// Variable-length integers against a codec that works from the table of the format alone.
#include "support/varint_model.h"

#include "psp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

using namespace psptest;

namespace {

using Bytes = std::vector<uint32_t>;

// A sink that takes at most `room` bytes and then fails with `code`.
struct Sink {
    Bytes bytes;
    std::size_t room = SIZE_MAX;
    ZYN_RETCODE code = eBADWRITE;
    int calls = 0;

    static ZYN_RETCODE put(ZYN_OUTPUT_CTX ctx, uint32_t ch)
    {
        auto* self = static_cast<Sink*>(ctx);
        self->calls++;
        if (self->bytes.size() == self->room)
            return self->code;
        self->bytes.push_back(ch);
        return sOKAY;
    }
};

// A source that fails with `code` after its last byte.
struct Source {
    Bytes bytes;
    ZYN_RETCODE code = eEOD;
    std::size_t taken = 0;
    int calls = 0;

    static ZYN_RETCODE get(ZYN_INPUT_CTX ctx, uint32_t* ch)
    {
        auto* self = static_cast<Source*>(ctx);
        self->calls++;
        if (self->taken == self->bytes.size())
            return self->code;
        *ch = self->bytes[self->taken++];
        return sOKAY;
    }
};

Bytes encoded(uint64_t value)
{
    Sink sink;
    EXPECT_EQ(psp_vintEncodeUIntmax(value, Sink::put, &sink), sOKAY);
    return sink.bytes;
}

std::vector<uint64_t> boundaries()
{
    std::vector<uint64_t> values;
    for (const VarintForm& form : varint_forms)
        for (uint64_t distance = 0; distance < 300; ++distance) {
            values.push_back(form.offset + distance);
            values.push_back(form.offset - distance); // below 0 it wraps to the largest values
        }
    for (int bit = 0; bit < 64; ++bit)
        for (uint64_t distance : {UINT64_MAX, uint64_t{0}, uint64_t{1}})
            values.push_back((uint64_t{1} << bit) + distance);
    return values;
}

TEST(Varint, EncodesTheKnownExamples)
{
    const struct {
        uint64_t value;
        Bytes bytes;
    } rows[] = {
        {0, {0x00}},
        {127, {0x7F}},
        {128, {0x80, 0x00}},
        {300, {0x80, 0xAC}},
        {16511, {0xBF, 0xFF}},
        {16512, {0xC0, 0x00, 0x00}},
        {1000000, {0xCF, 0x01, 0xC0}},
        {4294967296, {0xE8, 0xF7, 0xDF, 0xBF, 0x80}},
        {9223372036854775808u, {0xFA, 0x7E, 0xFE, 0xF7, 0xF7, 0xF7, 0xDF, 0xBF, 0x80}},
        {18446744073709551615u, {0xFA, 0xFE, 0xFE, 0xF7, 0xF7, 0xF7, 0xDF, 0xBF, 0x7F}},
    };
    for (const auto& row : rows)
        EXPECT_EQ(encoded(row.value), row.bytes) << row.value;
}

TEST(Varint, TakesTheShortestLengthWhoseRangeHoldsTheValue)
{
    const struct {
        uint64_t last;
        std::size_t length;
    } rows[] = {{127, 1},         {16511, 2},         {2113663, 3},         {136331391, 4},
                {34496069759, 5}, {8830589091967, 6}, {290305565802623, 7}, {72347899603730559, 8}};
    for (const auto& row : rows) {
        EXPECT_EQ(encoded(row.last).size(), row.length) << row.last;
        EXPECT_EQ(encoded(row.last + 1).size(), row.length + 1) << row.last + 1;
    }
}

TEST(Varint, AgreesWithTheTableAroundEveryBoundary)
{
    for (const uint64_t value : boundaries()) {
        const Bytes expected = encoded_varint<Bytes>(value);
        EXPECT_EQ(encoded(value), expected) << value;
        Source source{expected};
        uintmax_t decoded = 0;
        EXPECT_EQ(psp_vintDecodeUIntmax(Source::get, &source, &decoded), sOKAY);
        EXPECT_EQ(decoded, value);
        EXPECT_EQ(source.calls, static_cast<int>(expected.size())) << "reads its own bytes only";
    }
}

// Sinks and sources over a fixed array, so that ten million values take seconds.
struct Tape {
    uint8_t bytes[9];
    unsigned length = 0;
    unsigned taken = 0;

    static ZYN_RETCODE put(ZYN_OUTPUT_CTX ctx, uint32_t ch)
    {
        auto* self = static_cast<Tape*>(ctx);
        if (self->length == sizeof self->bytes || ch > 0xFF)
            return ePSP_FAILURE;
        self->bytes[self->length++] = static_cast<uint8_t>(ch);
        return sOKAY;
    }
    static ZYN_RETCODE get(ZYN_INPUT_CTX ctx, uint32_t* ch)
    {
        auto* self = static_cast<Tape*>(ctx);
        if (self->taken == self->length)
            return eEOD;
        *ch = self->bytes[self->taken++];
        return sOKAY;
    }
};

bool agrees_with_the_table(uint64_t value)
{
    const std::string expected = encoded_varint(value);
    Tape tape;
    if (psp_vintEncodeUIntmax(value, Tape::put, &tape) != sOKAY || tape.length != expected.size() ||
        std::memcmp(tape.bytes, expected.data(), expected.size()) != 0)
        return false;
    uintmax_t decoded = 0;
    return psp_vintDecodeUIntmax(Tape::get, &tape, &decoded) == sOKAY && decoded == value &&
           tape.taken == tape.length;
}

TEST(Varint, AgreesWithTheTableOverTenMillionRandomValues)
{
    std::mt19937_64 random(20240501);
    for (int i = 0; i < 10'000'000; ++i) {
        const uint64_t value = random() >> (random() & 63); // every magnitude alike
        ASSERT_TRUE(agrees_with_the_table(value)) << value;
    }
}

TEST(Varint, SortsEncodingsOfOneLengthInTheOrderOfTheirValues)
{
    std::vector<uint64_t> values = boundaries();
    std::sort(values.begin(), values.end());
    for (std::size_t i = 1; i < values.size(); ++i) {
        const Bytes lower = encoded(values[i - 1]);
        const Bytes upper = encoded(values[i]);
        if (lower.size() == upper.size())
            EXPECT_LE(lower, upper);
        else
            EXPECT_LT(lower.size(), upper.size());
    }
}

TEST(Varint, DecodesEveryFirstByteAsTheTableSays)
{
    for (unsigned first = 0; first < 0x100; ++first) {
        const auto row = varint_row_of_byte(first);
        if (!row)
            continue; // begins no encoding
        Bytes bytes(*row + 1, 0x5A);
        bytes[0] = first;
        Source source{bytes};
        uintmax_t decoded = 0;
        EXPECT_EQ(psp_vintDecodeUIntmax(Source::get, &source, &decoded), sOKAY) << first;
        EXPECT_EQ(decoded, decoded_varint(bytes)) << first;
    }
}

TEST(Varint, RefusesFirstBytesThatBeginNoEncodingAndReadsNoFurther)
{
    for (unsigned first = 0xFB; first <= 0xFF; ++first) {
        Source source{Bytes{first, 1, 2, 3, 4, 5, 6, 7, 8, 9}};
        uintmax_t decoded = 4711;
        EXPECT_EQ(psp_vintDecodeUIntmax(Source::get, &source, &decoded), eINVVARINT) << first;
        EXPECT_EQ(decoded, 4711u);
        EXPECT_EQ(source.calls, 1);
    }
}

TEST(Varint, LooksAtTheLowEightBitsOfTheFirstByteOnly)
{
    Source source{Bytes{0x12345680, 0xAC}};
    uintmax_t decoded = 0;
    EXPECT_EQ(psp_vintDecodeUIntmax(Source::get, &source, &decoded), sOKAY);
    EXPECT_EQ(decoded, 300u);
}

TEST(Varint, WrapsAPayloadBeyondSixtyFourBits)
{
    Source source{Bytes{0xFA, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}};
    uintmax_t decoded = 0;
    EXPECT_EQ(psp_vintDecodeUIntmax(Source::get, &source, &decoded), sOKAY);
    EXPECT_EQ(decoded, UINT64_MAX + 0x101080808204080u);
    Source least{Bytes{0xFA, 0xFE, 0xFE, 0xF7, 0xF7, 0xF7, 0xDF, 0xBF, 0x80}};
    EXPECT_EQ(psp_vintDecodeUIntmax(Source::get, &least, &decoded), sOKAY);
    EXPECT_EQ(decoded, 0u) << "the first payload that wraps";
}

TEST(Varint, ReturnsTheFailureOfASinkAtAnyByteAndStopsThere)
{
    for (const uint64_t value : boundaries()) {
        const Bytes expected = encoded_varint<Bytes>(value);
        for (std::size_t room = 0; room < expected.size(); ++room) {
            Sink sink{{}, room, sNOTFOUND};
            EXPECT_EQ(psp_vintEncodeUIntmax(value, Sink::put, &sink), sNOTFOUND);
            EXPECT_EQ(sink.bytes, Bytes(expected.begin(), expected.begin() + long(room)));
            EXPECT_EQ(sink.calls, static_cast<int>(room) + 1);
        }
    }
}

TEST(Varint, ReturnsTheFailureOfASourceAtAnyByteAndLeavesTheValueAlone)
{
    for (const VarintForm& form : varint_forms) {
        const Bytes whole = encoded_varint<Bytes>(form.offset + 5);
        for (std::size_t length = 0; length < whole.size(); ++length) {
            Source source{Bytes(whole.begin(), whole.begin() + long(length)), eBADREAD};
            uintmax_t decoded = 4711;
            EXPECT_EQ(psp_vintDecodeUIntmax(Source::get, &source, &decoded), eBADREAD);
            EXPECT_EQ(decoded, 4711u);
            EXPECT_EQ(source.calls, static_cast<int>(length) + 1);

            Source narrow{source.bytes, eEOD};
            uint32_t small = 4711;
            EXPECT_EQ(psp_vintDecodeUInt32(Source::get, &narrow, &small), eEOD);
            EXPECT_EQ(small, 4711u);

            Source size{source.bytes, sNEEDDATA};
            size_t count = 4711;
            EXPECT_EQ(psp_vintDecodeSize_t(Source::get, &size, &count), sNEEDDATA);
            EXPECT_EQ(count, 4711u);
        }
    }
}

TEST(Varint, NarrowsToThirtyTwoBitsWithinTheirRangeOnly)
{
    uint32_t value = 4711;
    Source largest{encoded_varint<Bytes>(4294967295)};
    EXPECT_EQ(psp_vintDecodeUInt32(Source::get, &largest, &value), sOKAY);
    EXPECT_EQ(value, 4294967295u);

    for (const uint64_t beyond : {uint64_t{4294967296}, UINT64_MAX}) {
        value = 4711;
        Source source{encoded_varint<Bytes>(beyond)};
        EXPECT_EQ(psp_vintDecodeUInt32(Source::get, &source, &value), eRANGE);
        EXPECT_EQ(value, 4711u);
        EXPECT_EQ(source.taken, source.bytes.size()) << "the encoding has been read";
    }
    Source malformed{Bytes{0xFC}};
    EXPECT_EQ(psp_vintDecodeUInt32(Source::get, &malformed, &value), eINVVARINT);
}

TEST(Varint, DecodesASizeOfAnyMagnitude)
{
    for (const uint64_t expected : {uint64_t{0}, uint64_t{4294967296}, UINT64_MAX}) {
        size_t value = 1;
        Source source{encoded_varint<Bytes>(expected)};
        EXPECT_EQ(psp_vintDecodeSize_t(Source::get, &source, &value), sOKAY);
        EXPECT_EQ(value, expected);
    }
    size_t value = 4711;
    Source malformed{Bytes{0xFF}};
    EXPECT_EQ(psp_vintDecodeSize_t(Source::get, &malformed, &value), eINVVARINT);
    EXPECT_EQ(value, 4711u);
}

TEST(Zigzag, MapsSmallMagnitudesToSmallValues)
{
    const struct {
        intmax_t plain;
        uintmax_t mapped;
    } rows[] = {{0, 0},
                {-1, 1},
                {1, 2},
                {-2, 3},
                {-64, 127},
                {64, 128},
                {INTMAX_MAX, 18446744073709551614u},
                {INTMAX_MIN, 18446744073709551615u}};
    for (const auto& row : rows) {
        EXPECT_EQ(psp_vintConvertToUnsigned(row.plain), row.mapped);
        EXPECT_EQ(psp_vintConvertToSigned(row.mapped), row.plain);
    }
}

TEST(Zigzag, IsUndoneForEveryKindOfValue)
{
    std::mt19937_64 random(7);
    for (int i = 0; i < 100'000; ++i) {
        const uint64_t bits = random() >> (random() & 63);
        const auto value = static_cast<intmax_t>(bits);
        EXPECT_EQ(psp_vintConvertToSigned(psp_vintConvertToUnsigned(value)), value);
        EXPECT_EQ(psp_vintConvertToUnsigned(psp_vintConvertToSigned(bits)), bits);
    }
}

} // namespace
