// Variable-length integers: whatever bytes decoded and every value encoded, against arithmetic on
// the first byte's leading bits; from sources and into sinks that fail at any byte.
#include "fuzz.h"
#include "support/varint_model.h"

#include "psp/varint.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>

using namespace psptest;

namespace {

// Bytes of a source, or of a sink with so much room. Both refuse in the same way.
struct Tape {
    std::string bytes;
    std::size_t room;
    ZYN_RETCODE code;
    std::size_t taken = 0;

    static ZYN_RETCODE put(ZYN_OUTPUT_CTX ctx, uint32_t ch)
    {
        auto* self = static_cast<Tape*>(ctx);
        CHECK(ch <= 0xFF);
        if (self->bytes.size() == self->room)
            return self->code;
        self->bytes.push_back(static_cast<char>(ch));
        return sOKAY;
    }
    static ZYN_RETCODE get(ZYN_INPUT_CTX ctx, uint32_t* ch)
    {
        auto* self = static_cast<Tape*>(ctx);
        if (self->taken == self->bytes.size())
            return self->code;
        *ch = static_cast<unsigned char>(self->bytes[self->taken++]);
        return sOKAY;
    }
};

struct Decoded {
    ZYN_RETCODE rc;
    uint64_t value;
    std::size_t taken;
};

// What decoding `bytes` gives when their end is `end`.
Decoded decoded(const std::string& bytes, ZYN_RETCODE end)
{
    if (bytes.empty())
        return {end, 0, 0};
    const auto row = varint_row_of_byte(static_cast<unsigned char>(bytes[0]));
    if (!row)
        return {eINVVARINT, 0, 1};
    const std::size_t size = *row + 1;
    if (bytes.size() < size)
        return {end, 0, bytes.size()};
    return {sOKAY, decoded_varint(bytes.substr(0, size)), size};
}

// One decoder of a type of its own; `untouched` is what the destination holds before.
template <class T>
void check_decoder(ZYN_RETCODE (*decode)(ZYN_INPUT_FCN, ZYN_INPUT_CTX, T*),
                   const std::string& bytes, ZYN_RETCODE end)
{
    constexpr T untouched = 4711;
    Decoded expected = decoded(bytes, end);
    if (expected.rc == sOKAY && expected.value > std::numeric_limits<T>::max())
        expected.rc = eRANGE;
    Tape tape{bytes, 0, end};
    T value = untouched;
    CHECK(decode(Tape::get, &tape, &value) == expected.rc);
    CHECK(tape.taken == expected.taken);
    CHECK(value == (expected.rc == sOKAY ? static_cast<T>(expected.value) : untouched));
}

void check_decoding(const std::string& bytes, ZYN_RETCODE end)
{
    check_decoder<uintmax_t>(psp_vintDecodeUIntmax, bytes, end);
    check_decoder<uint32_t>(psp_vintDecodeUInt32, bytes, end);
    check_decoder<size_t>(psp_vintDecodeSize_t, bytes, end);
}

void check_encoding(uint64_t value, std::size_t room, ZYN_RETCODE code)
{
    const std::string expected = encoded_varint(value);
    Tape tape{{}, room, code};
    const ZYN_RETCODE rc = psp_vintEncodeUIntmax(value, Tape::put, &tape);
    CHECK(rc == (expected.size() <= room ? ZYN_RETCODE{sOKAY} : code));
    CHECK(tape.bytes == expected.substr(0, room));

    const auto number = static_cast<int64_t>(value);
    const uint64_t zigzag = number < 0 ? ~(value * 2) : value * 2;
    CHECK(psp_vintConvertToUnsigned(number) == zigzag);
    CHECK(psp_vintConvertToSigned(zigzag) == number);
}

// Decodes one value after the other. What was decoded encodes to the same bytes again, unless it
// wrapped around.
void check_sequence(const std::string& bytes)
{
    Tape tape{bytes, 0, eEOD};
    for (std::size_t begin = 0; begin < bytes.size(); begin = tape.taken) {
        const std::string rest = bytes.substr(begin, 10); // more is never looked at
        check_decoding(rest, eEOD);
        uintmax_t value = 0;
        if (psp_vintDecodeUIntmax(Tape::get, &tape, &value) != sOKAY)
            continue;
        const std::string one = bytes.substr(begin, tape.taken - begin);
        Tape again{{}, SIZE_MAX, eBADWRITE};
        CHECK(psp_vintEncodeUIntmax(value, Tape::put, &again) == sOKAY);
        CHECK(again.bytes == one || (one.size() == 9 && again.bytes.size() < 9));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const auto any = input.ConsumeIntegral<uint64_t>();
    const auto shift = input.ConsumeIntegralInRange<unsigned>(0, 63);
    const auto room = input.ConsumeIntegralInRange<std::size_t>(0, 10);
    const auto code = input.PickValueInArray<ZYN_RETCODE>({eEOD, eBADWRITE, sNOTFOUND});
    // The ends of every length, and what lies next to them.
    const std::size_t row = shift % std::size(varint_forms);
    const uint64_t near = varint_forms[row].offset + any % 5 - 2;
    for (const uint64_t value : {any >> shift, ~(any >> shift), near}) {
        check_encoding(value, room, code);
        check_decoding(encoded_varint(value).substr(0, room), code);
        check_decoding(encoded_varint(value) + "x", code);
    }
    check_sequence(input.ConsumeRemainingBytesAsString());
    return 0;
}
