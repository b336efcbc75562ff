// The tables behind the codec of variable-length integers: every row and every first byte, against
// arithmetic on the marks alone.
#include "support/varint_model.h"

#include "psp_varint_int.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

using namespace psptest;

namespace {

using Bytes = std::vector<uint32_t>;

uint64_t last_value(std::size_t row)
{
    return row == 8 ? UINT64_MAX : varint_forms[row + 1].offset - 1;
}

// Takes bytes up to `room`, then fails.
struct Sink {
    Bytes bytes;
    std::size_t room = SIZE_MAX;

    static ZYN_RETCODE put(ZYN_OUTPUT_CTX ctx, uint32_t ch)
    {
        auto* self = static_cast<Sink*>(ctx);
        if (self->bytes.size() == self->room)
            return eBADWRITE;
        self->bytes.push_back(ch);
        return sOKAY;
    }
};

// Gives what follows the first byte, then fails.
struct Source {
    Bytes bytes;
    std::size_t next = 1;

    static ZYN_RETCODE get(ZYN_INPUT_CTX ctx, uint32_t* ch)
    {
        auto* self = static_cast<Source*>(ctx);
        if (self->next >= self->bytes.size())
            return eEOD;
        *ch = self->bytes[self->next++];
        return sOKAY;
    }
};

// The ends of a row's range and values between them.
std::vector<uint64_t> values_of(std::size_t row)
{
    const uint64_t first = varint_forms[row].offset;
    const uint64_t last = last_value(row);
    std::vector<uint64_t> values{first, first + 1, last - 1, last};
    std::mt19937_64 random(row + 1);
    std::uniform_int_distribution<uint64_t> between(first, last);
    for (int i = 0; i < 1000; ++i)
        values.push_back(between(random));
    return values;
}

TEST(VarintTable, HasOneRowForEachLengthInOrder)
{
    ASSERT_EQ(psp_encoder_fcns.size(), 9u);
    for (std::size_t row = 0; row < psp_encoder_fcns.size(); ++row)
        EXPECT_EQ(psp_encoder_fcns[row].size, row + 1);
}

TEST(VarintTable, EncodesEachRowsRangeInTheRowsLength)
{
    for (std::size_t row = 0; row < psp_encoder_fcns.size(); ++row)
        for (const uint64_t value : values_of(row)) {
            Sink sink;
            ASSERT_EQ(psp_encoder_fcns[row].encode_fcn(Sink::put, &sink, value), sOKAY);
            ASSERT_EQ(sink.bytes, encoded_varint<Bytes>(value))
                << "row " << row << ", value " << value;
        }
}

TEST(VarintTable, DecodesEachRowsRangeFromItsFirstByteOn)
{
    for (std::size_t row = 0; row < psp_encoder_fcns.size(); ++row)
        for (const uint64_t value : values_of(row)) {
            Source source{encoded_varint<Bytes>(value)};
            const auto first = static_cast<uint8_t>(source.bytes[0]);
            uintmax_t decoded = ~value;
            ASSERT_EQ(psp_encoder_fcns[row].decode_fcn(Source::get, &source, first, &decoded),
                      sOKAY);
            ASSERT_EQ(decoded, value) << "row " << row;
            ASSERT_EQ(source.next, row + 1) << "reads what follows and no more";
        }
}

TEST(VarintTable, KeepsThePayloadBitsOfTheFirstByteOnly)
{
    for (std::size_t row = 0; row < psp_encoder_fcns.size(); ++row)
        for (unsigned first = 0; first < 0x100; ++first) {
            Source source{Bytes(row + 1, 0)};
            uintmax_t decoded = 0;
            ASSERT_EQ(psp_encoder_fcns[row].decode_fcn(Source::get, &source,
                                                       static_cast<uint8_t>(first), &decoded),
                      sOKAY);
            uint64_t payload = first & ((1u << varint_forms[row].first_bits) - 1);
            for (std::size_t i = 0; i < row; ++i)
                payload *= 256;
            ASSERT_EQ(decoded, varint_forms[row].offset + payload) << row << ' ' << first;
        }
}

TEST(VarintTable, StopsEachRowAtAFailingByte)
{
    for (std::size_t row = 0; row < psp_encoder_fcns.size(); ++row) {
        const Bytes whole = encoded_varint<Bytes>(last_value(row));
        for (std::size_t size = 0; size < whole.size(); ++size) {
            const Bytes part(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
            Sink sink{{}, size};
            EXPECT_EQ(psp_encoder_fcns[row].encode_fcn(Sink::put, &sink, last_value(row)),
                      eBADWRITE);
            EXPECT_EQ(sink.bytes, part);
            if (size == 0)
                continue; // the first byte is read before a row is chosen
            Source source{part};
            uintmax_t decoded = 4711;
            EXPECT_EQ(psp_encoder_fcns[row].decode_fcn(Source::get, &source,
                                                       static_cast<uint8_t>(whole[0]), &decoded),
                      eEOD);
            EXPECT_EQ(decoded, 4711u);
        }
    }
}

TEST(VarintTable, FindsTheRowOfEveryFirstByte)
{
    ASSERT_EQ(reverse_lookup.size(), 256u);
    std::array<int, 256> rows;
    rows.fill(-1);
    for (std::size_t row = 0; row < std::size(varint_forms); ++row)
        for (unsigned low = 0; low < 1u << varint_forms[row].first_bits; ++low)
            rows[varint_forms[row].mark + low] = static_cast<int>(row);
    for (unsigned unused = 0xFB; unused <= 0xFF; ++unused) {
        ASSERT_EQ(rows[unused], -1);
        rows[unused] = static_cast<int>(unused - 0xFB) + 9;
    }
    for (std::size_t first = 0; first < rows.size(); ++first)
        EXPECT_EQ(reverse_lookup[first], rows[first]) << first;
}

} // namespace
