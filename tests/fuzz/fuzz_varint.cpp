// Variable-length integers: every input decoded and every value encoded, against arithmetic on the
// first byte's leading bits.
#include "fuzz.h"
#include "support/varint_model.h"

#include "psp/varint.h"

#include <string>

using namespace psptest;

namespace {

struct Decoded {
    ZYN_RETCODE rc;
    uint64_t value;
    std::size_t taken;
};

// What decoding `bytes` gives when their end is eEOD.
Decoded decoded(const std::string& bytes)
{
    if (bytes.empty())
        return {eEOD, 0, 0};
    const auto row = varint_row_of_byte(static_cast<unsigned char>(bytes[0]));
    if (!row)
        return {eINVVARINT, 0, 1};
    const std::size_t size = *row + 1;
    if (bytes.size() < size)
        return {eEOD, 0, bytes.size()};
    return {sOKAY, decoded_varint(bytes.substr(0, size)), size};
}

// Bytes of a source or sink, up to `room`.
struct Tape {
    std::string bytes;
    std::size_t room;
    std::size_t taken = 0;

    static ZYN_RETCODE put(ZYN_OUTPUT_CTX ctx, uint32_t ch)
    {
        auto* self = static_cast<Tape*>(ctx);
        CHECK(ch <= 0xFF);
        if (self->bytes.size() == self->room)
            return eBADWRITE;
        self->bytes.push_back(static_cast<char>(ch));
        return sOKAY;
    }
    static ZYN_RETCODE get(ZYN_INPUT_CTX ctx, uint32_t* ch)
    {
        auto* self = static_cast<Tape*>(ctx);
        if (self->taken == self->bytes.size())
            return eEOD;
        *ch = static_cast<unsigned char>(self->bytes[self->taken++]);
        return sOKAY;
    }
};

void check_decoding(const std::string& bytes)
{
    const Decoded expected = decoded(bytes);
    Tape tape{bytes, 0};
    uintmax_t value = 4711;
    CHECK(psp_vintDecodeUIntmax(Tape::get, &tape, &value) == expected.rc);
    CHECK(tape.taken == expected.taken);
    CHECK(value == (expected.rc == sOKAY ? expected.value : 4711));

    Tape again{bytes, 0};
    uint32_t narrow = 4711;
    const bool fits = expected.rc == sOKAY && expected.value <= UINT32_MAX;
    const ZYN_RETCODE rc = expected.rc != sOKAY || fits ? expected.rc : ZYN_RETCODE{eRANGE};
    CHECK(psp_vintDecodeUInt32(Tape::get, &again, &narrow) == rc);
    CHECK(again.taken == expected.taken);
    CHECK(narrow == (fits ? expected.value : 4711));
}

void check_encoding(uint64_t value, std::size_t room)
{
    const std::string expected = encoded_varint(value);
    Tape tape{{}, room};
    const ZYN_RETCODE rc = psp_vintEncodeUIntmax(value, Tape::put, &tape);
    CHECK(rc == (expected.size() <= room ? ZYN_RETCODE{sOKAY} : ZYN_RETCODE{eBADWRITE}));
    CHECK(tape.bytes == expected.substr(0, room));

    const auto number = static_cast<int64_t>(value);
    const uint64_t zigzag = number < 0 ? ~(value * 2) : value * 2;
    CHECK(psp_vintConvertToUnsigned(number) == zigzag);
    CHECK(psp_vintConvertToSigned(zigzag) == number);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const auto value = input.ConsumeIntegral<uint64_t>();
    const auto shift = input.ConsumeIntegralInRange<unsigned>(0, 63);
    const auto room = input.ConsumeIntegralInRange<std::size_t>(0, 10);
    check_encoding(value >> shift, room);
    check_encoding(~(value >> shift), room);
    check_decoding(encoded_varint(value >> shift));
    check_decoding(input.ConsumeRemainingBytesAsString());
    return 0;
}
