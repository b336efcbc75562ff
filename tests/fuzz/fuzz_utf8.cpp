// UTF-8: the decoder and all that is built on it, in both ways to treat what is malformed, beside
// one that looks at whole sequences instead of keeping a state from byte to byte; and the bounded
// byte buffer.
//
// Every variant that the processor has reads every text.
//
// Texts end at a page that cannot be read, and what is written lies alone in memory.
#include "fuzz.h"
#include "library.h"
#include "support/guarded.h"
#include "support/utf8_model.h"

#include "psp/utf8.h"
#include "psp_internal.h"
#include "psp_utf8_scan.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

using namespace psptest;

namespace {

using Points = std::vector<uint32_t>;

constexpr std::size_t most_text = 16384;

// What the input asks of the functions.
struct Task {
    std::string text;
    PSP_UTF8_ERROR_BEHAVIOR behavior;
    std::size_t room;  // at a destination
    std::size_t limit; // in characters
    ZYN_RETCODE code;  // that ends the work at the limit
};

// The text, readable up to its last byte.
const char* placed(std::string_view text)
{
    static GuardedRoom room(most_text);
    return room.place(text);
}

// Its NUL is the last byte.
const char* placed_string(const std::string& text)
{
    return placed({text.c_str(), text.size() + 1});
}

std::string encoded(const Points& points)
{
    std::string text;
    for (const uint32_t point : points)
        text += encoded_utf8(point);
    return text;
}

// ---- Texts ----

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

void check_decoder(const Task& task, const DecodedUtf8& expected)
{
    BUFFER_INPUT_CTX in{placed(task.text), 0, task.text.size()};
    Collector out{task.limit, task.code};
    const ZYN_RETCODE rc =
        psp_processInput(bufferInputFcn, &in, Collector::put, &out, task.behavior);
    if (expected.chars.size() > task.limit) {
        CHECK(rc == (task.code == sNOTFOUND ? ZYN_RETCODE{sOKAY} : task.code));
        CHECK(std::equal(out.points.begin(), out.points.end(), expected.chars.begin()));
        CHECK(out.points.size() == task.limit);
    } else {
        CHECK(rc == (expected.failed ? ZYN_RETCODE{eINVUNICODE} : ZYN_RETCODE{sOKAY}));
        CHECK(out.points == expected.chars);
    }
}

void check_copying(const Task& task, const DecodedUtf8& expected)
{
    const char* const text = placed(task.text);
    std::string fits;
    std::size_t count = 0;
    while (count < expected.chars.size() &&
           fits.size() + encoded_utf8(expected.chars[count]).size() <= task.room)
        fits += encoded_utf8(expected.chars[count++]);
    const std::size_t result = expected.failed ? PSP_UTF8_FAILED : fits.size();
    const std::unique_ptr<char[]> dest(new char[task.room]);
    for (char* where : {dest.get(), static_cast<char*>(nullptr)}) {
        std::size_t chars = 4711;
        CHECK(psp_copyUTF8Chars(where, task.room, text, task.text.size(), &chars, task.behavior) ==
              result);
        CHECK(chars == (expected.failed ? 4711 : count));
    }
    CHECK(expected.failed || std::equal(fits.begin(), fits.end(), dest.get()));
    CHECK(psp_copyUTF8Chars(dest.get(), task.room, text, task.text.size(), nullptr,
                            task.behavior) == result);
}

void check_counting(const Task& task, const DecodedUtf8& expected)
{
    const char* const text = placed(task.text);
    CHECK(psp_countUTF8chars(text, task.text.size(), task.behavior) ==
          (expected.failed ? 0 : expected.chars.size()));
    const bool enough = task.limit != 0 && expected.chars.size() >= task.limit;
    Points counted = expected.chars;
    if (enough)
        counted.resize(task.limit);
    CHECK(psp_countUTF8bytes(text, task.text.size(), task.limit, task.behavior) ==
          (expected.failed && !enough ? PSP_UTF8_FAILED : encoded(counted).size()));
}

// ---- Wide characters ----

bool equal(const wchar_t* stored, const DecodedUtf8& expected, std::size_t count)
{
    for (std::size_t i = 0; i < count; i++)
        if (static_cast<uint32_t>(stored[i]) != expected.chars[i])
            return false;
    return stored[count] == 0;
}

// `convert` is called with a destination and its length in elements.
template <class Convert>
void check_wide(const Task& task, const DecodedUtf8& expected, Convert convert)
{
    const std::size_t room = task.room + 1;
    const std::unique_ptr<wchar_t[]> dest(new wchar_t[room]);
    const std::size_t stored = std::min(expected.chars.size(), task.room);
    CHECK(convert(nullptr, 0) == (expected.failed ? PSP_UTF8_FAILED : expected.chars.size() + 1));
    CHECK(convert(dest.get(), room) == (expected.failed ? PSP_UTF8_FAILED : stored + 1));
    CHECK(expected.failed || equal(dest.get(), expected, stored));
}

void check_new_wide(const Task& task, const DecodedUtf8& expected)
{
    const Balance balance;
    const char* const text = placed_string(task.text);
    wchar_t* const made = psp_convToWchar(text, task.behavior, PSP_GLOBAL_TAG);
    wchar_t other = 0;
    wchar_t* again = &other;
    const ZYN_RETCODE rc = psp_convToWchar_rc(text, task.behavior, &again, PSP_GLOBAL_TAG);
    CHECK(rc == (expected.failed ? ZYN_RETCODE{eNOMEMORY} : ZYN_RETCODE{sOKAY}));
    for (wchar_t* const str : {made, again}) {
        CHECK((str == nullptr) == expected.failed);
        if (str == nullptr)
            continue;
        CHECK(equal(str, expected, expected.chars.size()));
        psp_freeMem(str, PSP_GLOBAL_TAG, __FILE__, __LINE__);
    }
}

void check_text(Task task)
{
    const DecodedUtf8 expected = decoded_utf8(task.text, task.behavior);
    check_decoder(task, expected);
    check_copying(task, expected);
    check_counting(task, expected);
    const char* text = placed(task.text);
    check_wide(task, expected, [&](wchar_t* dest, std::size_t room) {
        return psp_utf8_to_wchar_len(dest, room, text, task.text.size(), task.behavior);
    });
    task.text.resize(std::min(task.text.size(), task.text.find('\0')));
    const DecodedUtf8 head = decoded_utf8(task.text, task.behavior);
    text = placed_string(task.text);
    check_wide(task, head, [&](wchar_t* dest, std::size_t room) {
        return psp_utf8_to_wchar(dest, text, room, task.behavior);
    });
    check_new_wide(task, head);
}

// ---- One code point ----

void check_code_point(uint32_t point, std::size_t room)
{
    const std::string expected = point < 0x110000 ? encoded_utf8(point) : "";
    CHECK(psp_utf8_codes(point, nullptr) == expected.size());
    const std::unique_ptr<uint8_t[]> bytes(new uint8_t[expected.size()]);
    CHECK(psp_utf8_codes(point, bytes.get()) == expected.size());
    CHECK(std::equal(expected.begin(), expected.end(), reinterpret_cast<char*>(bytes.get())));

    const std::unique_ptr<uint8_t[]> buffer(new uint8_t[room]);
    std::fill_n(buffer.get(), room, 0x5A);
    CHECK(psp_uchar_to_utf8(point, buffer.get(), room) == expected.size());
    const bool fits = expected.size() <= room;
    for (std::size_t i = 0; i < room; i++) {
        const char filled = i < expected.size() ? expected[i] : '\0';
        CHECK(buffer[i] == (fits ? static_cast<uint8_t>(filled) : 0x5A));
    }
}

// ---- The byte buffer ----

// The text byte by byte, through the callback or as a string. Bits above a byte do not count.
void check_buffer(const Task& task, bool with_memory)
{
    const std::string head = task.text.substr(0, task.text.find('\0'));
    const std::unique_ptr<char[]> memory(new char[task.room]);
    ZYN_OUTPUT_BUFF info;
    psp_utf8BuffInit(&info, with_memory ? memory.get() : nullptr, task.room);
    for (const char byte : task.text)
        CHECK(psp_emitCharAsUtf8(&info, 0xABCD00 | static_cast<uint8_t>(byte)) == sOKAY);
    CHECK(psp_outputString(psp_emitCharAsUtf8, &info, placed_string(head)) == sOKAY);

    const std::string all = task.text + head;
    const bool stores = with_memory && task.room != 0;
    const std::size_t used = stores ? std::min(all.size(), task.room - 1) : 0;
    CHECK(info.used_elems == used && info.used_chars == used);
    CHECK(info.needed_elems == all.size() && info.needed_chars == all.size());
    CHECK((info.done != ZYN_FALSE) == (used < all.size()));
    psp_utf8BuffTerm(&info);
    CHECK(info.needed_elems == all.size() + 1 && info.needed_chars == all.size() + 1);
    CHECK(info.used_elems == used + stores && info.used_chars == used + stores);
    CHECK(!stores ||
          std::equal(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(used), memory.get()));
    CHECK(!stores || memory[used] == '\0');
}

// Ends the work at the limit.
void check_output_string(const Task& task)
{
    const std::string head = task.text.substr(0, task.text.find('\0'));
    Collector out{task.limit, task.code};
    const ZYN_RETCODE rc = psp_outputString(Collector::put, &out, placed_string(head));
    CHECK(rc == (head.size() > task.limit ? task.code : ZYN_RETCODE{sOKAY}));
    CHECK(out.points.size() == std::min(head.size(), task.limit));
    for (std::size_t i = 0; i < out.points.size(); i++)
        CHECK(out.points[i] == static_cast<uint8_t>(head[i]));
}

// ---- Inputs ----

// A character with more bytes than it needs, of two to four.
std::string overlong(uint32_t point, unsigned form)
{
    const auto tail = [&](unsigned shift) {
        return static_cast<char>(0x80 | (point >> shift & 0x3F));
    };
    if (form == 0)
        return {static_cast<char>(0xC0 | (point >> 6 & 1)), tail(0)};
    if (form == 1)
        return {'\xE0', static_cast<char>(0x80 | (point >> 6 & 0x1F)), tail(0)};
    return {'\xF0', static_cast<char>(0x80 | (point >> 12 & 0xF)), tail(6), tail(0)};
}

// So many characters, each the next of the one before: enough of one length to fill whole blocks.
void add_run(std::string& text, uint32_t point, std::size_t count)
{
    for (; count > 0 && text.size() < most_text; count--)
        text += encoded_utf8(point++);
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
        else if (kind < 0x80)
            text += overlong(input.ConsumeIntegralInRange<uint32_t>(0, 0xFFFF), kind % 3);
        else if (kind < 0xA0)
            text += encoded_utf8(input.ConsumeIntegralInRange<uint32_t>(0, 0x1FFFFF));
        else if (kind < 0xB0)
            add_run(text, input.ConsumeIntegralInRange<uint32_t>(0, 0x10FFFF), kind % 16 * 9);
        else if (kind < 0xC0)
            text.resize(text.empty() ? 0 : text.size() - 1); // breaks what came before
        else
            text += input.ConsumeRandomLengthString(8);
    }
    return text;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    start_library();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    Task task;
    task.room = input.ConsumeIntegralInRange<std::size_t>(0, 640);
    task.limit = input.ConsumeIntegralInRange<std::size_t>(0, 640);
    task.code = input.PickValueInArray<ZYN_RETCODE>({sNOTFOUND, eBADWRITE});
    check_code_point(input.ConsumeIntegralInRange<uint32_t>(0, 0x120000), task.room % 8);
    task.text = input.ConsumeBool() ? make_text(input) : input.ConsumeRemainingBytesAsString();
    task.text.resize(std::min(task.text.size(), most_text - 1));
    for (std::size_t i = 0; i < psp_utf8_supported(); i++) {
        psp_utf8_chosen = psp_utf8_variants[i];
        for (const auto behavior : {PSP_UTF8_ERROR_BREAK, PSP_UTF8_ERROR_CONTINUE}) {
            task.behavior = behavior;
            check_text(task);
        }
    }
    check_buffer(task, true);
    check_buffer(task, false);
    check_output_string(task);
    return 0;
}
