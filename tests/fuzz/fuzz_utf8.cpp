// UTF-8: the decoder and all that is built on it against one that looks at whole sequences instead
// of keeping a state from byte to byte.
#include "fuzz.h"
#include "support/utf8_model.h"

#include "psp/utf8.h"
#include "psp_internal.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

using psptest::encoded_utf8;

namespace {

using Points = std::vector<uint32_t>;

struct Decoded {
    Points points; // those before the first malformed piece when it counts
    bool failed = false;
};

bool is_tail(unsigned char byte)
{
    return (byte & 0xC0) == 0x80;
}

// How many bytes ought to follow a first byte; -1: it begins nothing.
int following(unsigned char first)
{
    if (first < 0x80)
        return 0;
    if (first < 0xC0 || first >= 0xF8)
        return -1;
    return first < 0xE0 ? 1 : first < 0xF0 ? 2 : 3;
}

bool is_forbidden(uint32_t point)
{
    return (point >= 0xD800 && point <= 0xDFFF) || point == 0xFFFE || point == 0xFFFF ||
           point > 0x10FFFF;
}

Decoded decode(const std::string& text, bool strict)
{
    Decoded result;
    for (std::size_t at = 0; at < text.size();) {
        const auto first = static_cast<unsigned char>(text[at++]);
        const int wanted = following(first);
        uint32_t point = wanted <= 0 ? first : first & (0x3Fu >> wanted);
        int got = 0;
        while (got < wanted && at < text.size() && is_tail(static_cast<unsigned char>(text[at]))) {
            point = point << 6 | (static_cast<unsigned char>(text[at++]) & 0x3F);
            got++;
        }
        const bool whole = got == wanted;
        if (!whole && wanted > 0 && at < text.size() &&
            static_cast<unsigned char>(text[at]) >= 0xF8)
            at++; // breaks the sequence and is gone with it
        const bool valid = whole && !is_forbidden(point);
        const bool shortest =
            valid && encoded_utf8(point).size() == static_cast<std::size_t>(wanted) + 1;
        if (strict && !shortest) {
            result.failed = true;
            return result;
        }
        result.points.push_back(valid ? point : '?');
    }
    return result;
}

std::string encoded(const Points& points)
{
    std::string text;
    for (const uint32_t point : points)
        text += encoded_utf8(point);
    return text;
}

// Gathers code points until it has so many, and then ends the work with a code.
struct Collector {
    std::size_t limit;
    ZYN_RETCODE code;
    Points points{};

    static ZYN_RETCODE put(ZYN_OUTPUT_CTX ctx, uint32_t point)
    {
        auto* self = static_cast<Collector*>(ctx);
        if (self->points.size() == self->limit)
            return self->code;
        self->points.push_back(point);
        return sOKAY;
    }
};

// A copy without a byte to spare, so that reading beyond it is seen.
std::unique_ptr<char[]> exact(const std::string& text)
{
    std::unique_ptr<char[]> copy(new char[text.size()]);
    std::copy(text.begin(), text.end(), copy.get());
    return copy;
}

void check_decoder(const std::string& text, PSP_UTF8_ERROR_BEHAVIOR behavior,
                   const Decoded& expected, std::size_t limit, ZYN_RETCODE code)
{
    const auto copy = exact(text);
    BUFFER_INPUT_CTX in{copy.get(), 0, text.size()};
    Collector out{limit, code};
    const ZYN_RETCODE rc = psp_processInput(bufferInputFcn, &in, Collector::put, &out, behavior);
    if (expected.points.size() > limit) {
        CHECK(rc == (code == sNOTFOUND ? ZYN_RETCODE{sOKAY} : code));
        CHECK(std::equal(out.points.begin(), out.points.end(), expected.points.begin()));
        CHECK(out.points.size() == limit);
    } else {
        CHECK(rc == (expected.failed ? ZYN_RETCODE{eINVUNICODE} : ZYN_RETCODE{sOKAY}));
        CHECK(out.points == expected.points);
    }
}

void check_copying(const std::string& text, PSP_UTF8_ERROR_BEHAVIOR behavior,
                   const Decoded& expected, std::size_t room)
{
    const auto copy = exact(text);
    std::unique_ptr<char[]> dest(new char[room]);
    std::string fits;
    std::size_t count = 0;
    while (count < expected.points.size() &&
           fits.size() + encoded_utf8(expected.points[count]).size() <= room)
        fits += encoded_utf8(expected.points[count++]);
    for (char* where : {dest.get(), static_cast<char*>(nullptr)}) {
        std::size_t chars = 4711;
        const std::size_t bytes =
            psp_copyUTF8Chars(where, room, copy.get(), text.size(), &chars, behavior);
        CHECK(bytes == (expected.failed ? PSP_UTF8_FAILED : fits.size()));
        CHECK(chars == (expected.failed ? 4711 : count));
    }
    CHECK(expected.failed || std::string(dest.get(), fits.size()) == fits);
}

void check_counting(const std::string& text, PSP_UTF8_ERROR_BEHAVIOR behavior,
                    const Decoded& expected, std::size_t chars)
{
    const auto copy = exact(text);
    CHECK(psp_countUTF8chars(copy.get(), text.size(), behavior) ==
          (expected.failed ? 0 : expected.points.size()));
    const bool enough = chars != 0 && expected.points.size() >= chars;
    Points counted = expected.points;
    if (enough)
        counted.resize(chars);
    CHECK(psp_countUTF8bytes(copy.get(), text.size(), chars, behavior) ==
          (expected.failed && !enough ? PSP_UTF8_FAILED : encoded(counted).size()));
}

// `convert` is called with a destination and its length in elements.
template <class Convert>
void check_wide(const Decoded& expected, std::size_t room, Convert convert)
{
    std::unique_ptr<wchar_t[]> dest(new wchar_t[room]);
    const std::size_t stored = std::min(expected.points.size(), room - 1);
    CHECK(convert(nullptr, 0) == (expected.failed ? PSP_UTF8_FAILED : expected.points.size() + 1));
    CHECK(convert(dest.get(), room) == (expected.failed ? PSP_UTF8_FAILED : stored + 1));
    if (expected.failed)
        return;
    for (std::size_t i = 0; i < stored; i++)
        CHECK(static_cast<uint32_t>(dest[i]) == expected.points[i]);
    CHECK(dest[stored] == 0);
}

// A text of pieces next to every limit of the decoder, and of any bytes between them.
std::string make_text(FuzzedDataProvider& input)
{
    static constexpr uint32_t limits[] = {0x0,     0x7F,     0x80,     0x7FF,   0x800,  0xD7FF,
                                          0xD800,  0xDFFF,   0xE000,   0xFFFD,  0xFFFE, 0xFFFF,
                                          0x10000, 0x10FFFF, 0x110000, 0x1FFFFF};
    std::string text;
    while (input.remaining_bytes() > 1) {
        const auto kind = input.ConsumeIntegral<uint8_t>();
        if (kind < 0x40)
            text += encoded_utf8(limits[kind % std::size(limits)]);
        else if (kind < 0x60)
            text += {'\xC0', static_cast<char>(0x80 | kind)}; // overlong in two bytes
        else if (kind < 0x80)
            text += {'\xE0', static_cast<char>(0x80 | kind), '\xBF'}; // or in three
        else if (kind < 0xA0)
            text += encoded_utf8(input.ConsumeIntegralInRange<uint32_t>(0, 0x1FFFFF));
        else if (kind < 0xC0)
            text.resize(text.empty() ? 0 : text.size() - 1); // breaks what came before
        else
            text += input.ConsumeRandomLengthString(8);
    }
    return text;
}

void check_code_point(uint32_t point)
{
    const std::string expected = point < 0x110000 ? encoded_utf8(point) : "";
    uint8_t bytes[4];
    CHECK(psp_utf8_codes(point, nullptr) == expected.size());
    CHECK(psp_utf8_codes(point, bytes) == expected.size());
    CHECK(std::equal(expected.begin(), expected.end(), reinterpret_cast<char*>(bytes)));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const auto room = input.ConsumeIntegralInRange<std::size_t>(0, 64);
    const auto limit = input.ConsumeIntegralInRange<std::size_t>(0, 64);
    const ZYN_RETCODE code = input.PickValueInArray<ZYN_RETCODE>({sNOTFOUND, eBADWRITE});
    check_code_point(input.ConsumeIntegralInRange<uint32_t>(0, 0x120000));
    const std::string text =
        input.ConsumeBool() ? make_text(input) : input.ConsumeRemainingBytesAsString();
    const std::string head = text.substr(0, text.find('\0'));
    for (const auto behavior : {PSP_UTF8_ERROR_BREAK, PSP_UTF8_ERROR_CONTINUE}) {
        const bool strict = behavior == PSP_UTF8_ERROR_BREAK;
        const Decoded expected = decode(text, strict);
        check_decoder(text, behavior, expected, limit, code);
        check_copying(text, behavior, expected, room);
        check_counting(text, behavior, expected, limit);
        const auto copy = exact(text);
        check_wide(expected, room + 1, [&](wchar_t* dest, std::size_t elements) {
            return psp_utf8_to_wchar_len(dest, elements, copy.get(), text.size(), behavior);
        });
        check_wide(decode(head, strict), room + 1, [&](wchar_t* dest, std::size_t elements) {
            return psp_utf8_to_wchar(dest, head.c_str(), elements, behavior);
        });
    }
    return 0;
}
