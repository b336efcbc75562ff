// The tables behind the codec of variable-length integers: every row and every first byte, against
// arithmetic on the marks alone.
#include "psp_varint_int.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace {

using Bytes = std::vector<uint32_t>;

// The format again: the first byte's mark, its payload bits, and where the values begin.
struct Form {
    uint32_t mark;
    unsigned first_bits;
    uint64_t offset;
};
constexpr Form forms[] = {
    {0x00, 7, 0x0},
    {0x80, 6, 0x80},
    {0xC0, 5, 0x4080},
    {0xE0, 3, 0x204080},
    {0xE8, 3, 0x8204080},
    {0xF0, 3, 0x808204080},
    {0xF8, 0, 0x80808204080},
    {0xF9, 0, 0x1080808204080},
    {0xFA, 0, 0x101080808204080},
};

uint64_t last_value(std::size_t row)
{
    return row == 8 ? UINT64_MAX : forms[row + 1].offset - 1;
}

Bytes encoding(std::size_t row, uint64_t value)
{
    uint64_t payload = value - forms[row].offset;
    Bytes bytes(row + 1);
    for (std::size_t i = row; i > 0; --i, payload >>= 8)
        bytes[i] = payload & 0xFF;
    bytes[0] = static_cast<uint32_t>(forms[row].mark | payload);
    return bytes;
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
    const uint64_t first = forms[row].offset;
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
            ASSERT_EQ(sink.bytes, encoding(row, value)) << "row " << row << ", value " << value;
        }
}

TEST(VarintTable, DecodesEachRowsRangeFromItsFirstByteOn)
{
    for (std::size_t row = 0; row < psp_encoder_fcns.size(); ++row)
        for (const uint64_t value : values_of(row)) {
            Source source{encoding(row, value)};
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
            uint64_t payload = first & ((1u << forms[row].first_bits) - 1);
            for (std::size_t i = 0; i < row; ++i)
                payload *= 256;
            ASSERT_EQ(decoded, forms[row].offset + payload) << row << ' ' << first;
        }
}

TEST(VarintTable, StopsEachRowAtAFailingByte)
{
    for (std::size_t row = 0; row < psp_encoder_fcns.size(); ++row) {
        const Bytes whole = encoding(row, last_value(row));
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
    for (std::size_t row = 0; row < std::size(forms); ++row)
        for (unsigned low = 0; low < 1u << forms[row].first_bits; ++low)
            rows[forms[row].mark + low] = static_cast<int>(row);
    for (unsigned unused = 0xFB; unused <= 0xFF; ++unused) {
        ASSERT_EQ(rows[unused], -1);
        rows[unused] = static_cast<int>(unused - 0xFB) + 9;
    }
    for (std::size_t first = 0; first < rows.size(); ++first)
        EXPECT_EQ(reverse_lookup[first], rows[first]) << first;
}

} // namespace
