// Variable-length integers: the library's codec and LEB128, both through the same byte callbacks
// and both beyond a library's boundary.
//
// Beside small values alone, lengths are mixed in two ways: in turn, which a processor learns to
// foresee, and by chance, where every side pays for wrong guesses. Two more sides show what the
// callbacks cost: the bare calls of them, and a codec that writes to memory without any.

#include <algorithm>
#include <array>
#include <random>
#include <vector>

#include "far/callback_loop.h"
#include "far/leb128.h"
#include "psp/varint.h"
#include "row.h"

#ifdef PSP_PEER_PROTOBUF
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#endif

namespace {

constexpr size_t LONGEST = 10; // of an encoded value, of any side

// The bytes between the ends, for both directions.
struct Cursor {
    uint8_t* next;
    uint8_t* end;

    explicit Cursor(std::vector<uint8_t>& bytes)
        : next(bytes.data()), end(bytes.data() + bytes.size())
    {
    }
};

ZYN_RETCODE put_byte(ZYN_OUTPUT_CTX ctx, uint32_t ch)
{
    auto* cursor = static_cast<Cursor*>(ctx);
    if (cursor->next == cursor->end)
        return eBADWRITE;
    *cursor->next++ = static_cast<uint8_t>(ch);
    return sOKAY;
}

ZYN_RETCODE get_byte(ZYN_INPUT_CTX ctx, uint32_t* ch)
{
    auto* cursor = static_cast<Cursor*>(ctx);
    if (cursor->next == cursor->end)
        return eEOD;
    *ch = *cursor->next++;
    return sOKAY;
}

using Values = std::vector<uint64_t>;

// What most values are: small.
Values small()
{
    Values values;
    for (size_t i = 0; i < 900; ++i)
        values.push_back(i % 128);
    return values;
}

// A value of each of the nine lengths after the other.
Values in_turn()
{
    Values values;
    for (size_t i = 0; i < 900; ++i)
        values.push_back(uint64_t{1} << (7 * (i % 9)));
    return values;
}

// Every number of bits equally likely, in a sequence too long to learn.
Values by_chance()
{
    Values values;
    std::mt19937_64 random;
    for (size_t i = 0; i < 30000; ++i)
        values.push_back(random() >> (random() % 64));
    return values;
}

// Puts all values with the encoder, one behind the other; gives their bytes.
template <class Encode>
std::vector<uint8_t> encode_all(const Values& values, Encode encode)
{
    std::vector<uint8_t> bytes(values.size() * LONGEST);
    Cursor cursor(bytes);
    for (const uint64_t value : values)
        encode(value, put_byte, &cursor);
    bytes.resize(static_cast<size_t>(cursor.next - bytes.data()));
    return bytes;
}

// Takes `count` values with the decoder.
template <class Decode>
Values decode_all(std::vector<uint8_t>& bytes, size_t count, Decode decode)
{
    Values values(count);
    Cursor cursor(bytes);
    for (uint64_t& value : values)
        decode(get_byte, &cursor, &value);
    return values;
}

std::vector<uint8_t> lengths_of(const Values& values)
{
    std::vector<uint8_t> lengths;
    for (const uint64_t value : values)
        lengths.push_back(static_cast<uint8_t>(encode_all({value}, psp_vintEncodeUIntmax).size()));
    return lengths;
}

// The values in all forms. A side works through all of them `n` times.
struct Integers {
    explicit Integers(Values all)
        : values(std::move(all)), lengths(lengths_of(values)),
          bytes(encode_all(values, psp_vintEncodeUIntmax)),
          leb128(encode_all(values, far::leb128_encode)), room(values.size() * LONGEST)
    {
    }

    bool come_back()
    {
        return decode_all(bytes, values.size(), psp_vintDecodeUIntmax) == values &&
               decode_all(leb128, values.size(), far::leb128_decode) == values;
    }

    Values values;
    std::vector<uint8_t> lengths;
    std::vector<uint8_t> bytes;
    std::vector<uint8_t> leb128;
    std::vector<uint8_t> room;
};

template <class Encode>
bench::Work encoding(Integers& all, Encode encode)
{
    return [&all, encode](size_t n) {
        for (; n > 0; --n) {
            Cursor cursor(all.room);
            for (const uint64_t value : all.values)
                encode(value, put_byte, &cursor);
        }
    };
}

template <class Decode>
bench::Work decoding(Integers& all, std::vector<uint8_t>& bytes, Decode decode)
{
    return [&all, &bytes, decode](size_t n) {
        for (; n > 0; --n) {
            Cursor cursor(bytes);
            for (uint64_t& value : all.values)
                decode(get_byte, &cursor, &value);
        }
    };
}

void encode(bench::Row& row, Values values)
{
    Integers all(std::move(values));
    if (!all.come_back())
        return row.fail("the values did not come back");
    row.psp(encoding(all, psp_vintEncodeUIntmax));
    row.peer("LEB128", encoding(all, far::leb128_encode), 1.1);
    row.peer("calls alone", [&](size_t n) {
        for (; n > 0; --n) {
            Cursor cursor(all.room);
            put_bytes(all.bytes.data(), all.lengths.data(), all.values.size(), put_byte, &cursor);
        }
    });
#ifdef PSP_PEER_PROTOBUF
    row.peer("protobuf to memory", [&](size_t n) {
        for (; n > 0; --n) {
            google::protobuf::io::ArrayOutputStream stream(all.room.data(),
                                                           static_cast<int>(all.room.size()));
            google::protobuf::io::CodedOutputStream out(&stream);
            for (const uint64_t value : all.values)
                out.WriteVarint64(value);
        }
    });
#endif
    row.divide_by(static_cast<double>(all.values.size()));
    row.run();
}

void decode(bench::Row& row, Values values)
{
    Integers all(std::move(values));
    if (!all.come_back())
        return row.fail("the values did not come back");
    row.psp(decoding(all, all.bytes, psp_vintDecodeUIntmax));
    row.peer("LEB128", decoding(all, all.leb128, far::leb128_decode), 1.1);
    row.peer("calls alone", [&](size_t n) {
        for (; n > 0; --n) {
            Cursor cursor(all.bytes);
            uint32_t last = 0;
            get_bytes(all.lengths.data(), all.values.size(), get_byte, &cursor, &last);
            benchmark::DoNotOptimize(last);
        }
    });
#ifdef PSP_PEER_PROTOBUF
    row.peer("protobuf from memory", [&](size_t n) {
        for (; n > 0; --n) {
            google::protobuf::io::CodedInputStream in(all.leb128.data(),
                                                      static_cast<int>(all.leb128.size()));
            for (uint64_t& value : all.values)
                in.ReadVarint64(&value);
        }
    });
#endif
    row.divide_by(static_cast<double>(all.values.size()));
    row.run();
}

const bench::Registered encode_small("varint", "encode, one byte each", "ns/value",
                                     [](bench::Row& row) { encode(row, small()); });
const bench::Registered encode_turn("varint", "encode, lengths in turn", "ns/value",
                                    [](bench::Row& row) { encode(row, in_turn()); });
const bench::Registered encode_chance("varint", "encode, lengths by chance", "ns/value",
                                      [](bench::Row& row) { encode(row, by_chance()); });
const bench::Registered decode_small("varint", "decode, one byte each", "ns/value",
                                     [](bench::Row& row) { decode(row, small()); });
const bench::Registered decode_turn("varint", "decode, lengths in turn", "ns/value",
                                    [](bench::Row& row) { decode(row, in_turn()); });
const bench::Registered decode_chance("varint", "decode, lengths by chance", "ns/value",
                                      [](bench::Row& row) { decode(row, by_chance()); });

} // namespace
