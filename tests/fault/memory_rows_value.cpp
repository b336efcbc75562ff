// Rows of the table: strings, wide characters, locales, binary streams.
#include "fault/faults.h"
#include "memory_rows.h"
#include "support/mem_test.h"

#include "psp_binstream_int.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>
#include <cstring>

namespace psptest {
namespace {

void release_made(Bench& bench)
{
    release(bench.made, bench.tag);
}

// ---- Strings ----

ZYN_RETCODE tokenize(Bench& bench)
{
    static char input[64];
    std::strcpy(input, "one, two,three, four,five,six,seven");
    const char** found = nullptr;
    const ZYN_RETCODE code = psp_tokenize(input, ",", &found, &bench.count, 1, bench.tag);
    bench.made = found;
    return code;
}

// A message that is longer than the first buffer.
char* long_message(int, char*, std::size_t)
{
    static char message[400];
    std::memset(message, 'm', sizeof message - 1);
    return message;
}

void add_strings(std::vector<Row>& rows)
{
    rows.push_back({.functions = "psp_tokenize",
                    .run = tokenize,
                    .refusals = {eNOMEMORY},
                    .verify =
                        [](Bench& b) {
                            ASSERT_EQ(b.count, 7u);
                            EXPECT_STREQ(b.as<const char**>()[3], "four");
                        },
                    .refused = [](Bench& b) { EXPECT_EQ(b.count, 0u); },
                    .undo =
                        [](Bench& b) {
                            release_made(b);
                            b.count = 0;
                        }});
    rows.push_back({.functions = "psp_strerr_alloc",
                    .run = [](Bench& b) { return b.keep(psp_strerr_alloc(ENOENT, b.tag)); },
                    .refusals = {eNOMEMORY},
                    .prepare = [](Bench&) { Fault::replace("strerror_r", long_message); },
                    .verify = [](Bench& b) { EXPECT_EQ(std::strlen(b.as<char*>()), 399u); },
                    .undo = release_made});
    rows.push_back(
        {.functions = "psp_convToWchar",
         .run =
             [](Bench& b) { return b.keep(psp_convToWchar("wide", PSP_UTF8_ERROR_BREAK, b.tag)); },
         .refusals = {eNOMEMORY},
         .verify = [](Bench& b) { EXPECT_EQ(std::wstring(b.as<wchar_t*>()), L"wide"); },
         .undo = release_made});
    rows.push_back(rows.back());
    rows.back().functions = "psp_convToWchar_rc";
    rows.back().run = [](Bench& b) {
        wchar_t* wide = nullptr;
        const ZYN_RETCODE code = psp_convToWchar_rc("wide", PSP_UTF8_ERROR_BREAK, &wide, b.tag);
        b.made = wide;
        return code;
    };
}

// ---- Locales: memory of the C library's ----

void add_locales(std::vector<Row>& rows)
{
    rows.push_back({.functions = "psp_createlocale",
                    .run = [](Bench& b) { return b.keep(psp_createlocale(LC_ALL_MASK, "C")); },
                    .refusals = {eNOMEMORY},
                    .jumps = Jumps::never,
                    .undo = [](Bench& b) { psp_freelocale(b.as<locale_t>()); },
                    .ways = 0,
                    .system = {"newlocale"}});
    rows.push_back({.functions = "psp_setlocale",
                    .run = [](Bench& b) { return b.keep(psp_setlocale(LC_ALL, "C")); },
                    .refusals = {eNOMEMORY},
                    .jumps = Jumps::never,
                    .ways = 0,
                    .system = {"setlocale"}});
}

// ---- Binary streams ----

// A transport that delivers one string with its length, from the start after each rewind.
std::size_t delivered;

ZYN_RETCODE deliver(const void*, void* buf, std::uint32_t size, std::uint32_t* len, std::uint32_t)
{
    static const char item[] = {4, 0, 0, 0, 't', 'e', 'x', 't'};
    *len = static_cast<std::uint32_t>(std::min<std::size_t>(size, sizeof item - delivered));
    std::memcpy(buf, item + delivered, *len);
    delivered += *len;
    return *len != 0 ? sOKAY : eEOD;
}

ZYN_RETCODE create_input(Bench& bench)
{
    PSP_INPUTBUFF in = nullptr;
    delivered = 0;
    const ZYN_RETCODE code = psp_inputBuffCreate(deliver, nullptr, 0, &in);
    bench.given = in;
    return code;
}

// The length is consumed, the text is not: the next call begins anew.
void rewind(Bench& bench)
{
    delivered = 0;
    psp_inputBuffReset(bench.on<PSP_INPUTBUFF>());
}

void destroy_input(Bench& bench)
{
    psp_inputBuffDestroy(bench.on<PSP_INPUTBUFF>());
}

void add_inputs(std::vector<Row>& rows)
{
    // Without its buffer the record stays with the global tag, as callers know it.
    rows.push_back({.functions = "psp_inputBuffCreate",
                    .run = create_input,
                    .refusals = {eNOMEMORY},
                    .undo = destroy_input,
                    .kept = {sizeof(INPUTBUFFEREDSTREAM)},
                    .restarts = true});
    rows.push_back(
        {.functions = "psp_inputBuffGetString",
         .run =
             [](Bench& b) { return psp_inputBuffGetString(b.on<PSP_INPUTBUFF>(), &b.text, b.tag); },
         .refusals = {eNOMEMORY},
         .prepare = [](Bench& b) { ASSERT_EQ(create_input(b), sOKAY); },
         .verify = [](Bench& b) { EXPECT_STREQ(b.text, "text"); },
         .refused = [](Bench& b) { EXPECT_EQ(b.text, nullptr); },
         .settle = rewind,
         .undo =
             [](Bench& b) {
                 release(b.text, b.tag);
                 destroy_input(b);
             }});
}

std::string sink; // what an output stream has written

ZYN_RETCODE take(const void*, const void* data, std::uint32_t size)
{
    sink.append(static_cast<const char*>(data), size);
    return sOKAY;
}

ZYN_RETCODE create_output(Bench& bench)
{
    PSP_OUTPUTBUFF out = nullptr;
    sink.clear();
    const ZYN_RETCODE code = psp_outputBuffCreate(take, nullptr, 0, &out);
    bench.given = out;
    return code;
}

constexpr std::size_t first_size = 4096; // of the buffer

// The next byte needs a longer buffer.
void fill_output(Bench& bench)
{
    static const std::string full(first_size, 'f');
    bench.count = 0;
    ASSERT_EQ(create_output(bench), sOKAY);
    ASSERT_EQ(psp_outputBuffPutBytes(bench.on<PSP_OUTPUTBUFF>(), full.data(), full.size()), sOKAY);
    ASSERT_EQ(sink, "");
}

void destroy_output(Bench& bench)
{
    psp_outputBuffDestroy(bench.on<PSP_OUTPUTBUFF>());
}

// A put into a full buffer, of so many bytes. A buffer that cannot grow keeps its size, and the put
// goes on without the memory.
Row put_row(const char* function, ZYN_RETCODE (*put)(Bench&), std::size_t size)
{
    return {.functions = function,
            .run = put,
            .refusals = {sOKAY},
            .prepare = fill_output,
            .verify =
                [](Bench& b) {
                    EXPECT_EQ(sink.size(), b.refused || b.count != 0 ? first_size : 0);
                    ASSERT_EQ(psp_outputBuffFlush(b.on<PSP_OUTPUTBUFF>()), sOKAY);
                    EXPECT_EQ(sink.size(), first_size + b.row.size);
                    EXPECT_EQ(sink.find_first_not_of('f'), first_size);
                },
            .refused =
                [](Bench& b) {
                    EXPECT_EQ(sink, "");
                    b.count = 1; // from now on the buffer keeps its size
                },
            .undo = destroy_output,
            .size = size};
}

#define PUT_ROW(function, size, ...)                                                               \
    put_row(                                                                                       \
        #function, [](Bench& b) { return function(b.on<PSP_OUTPUTBUFF>(), __VA_ARGS__); }, size)

void add_outputs(std::vector<Row>& rows)
{
    rows.push_back({.functions = "psp_outputBuffCreate",
                    .run = create_output,
                    .refusals = {eNOMEMORY},
                    .refused = [](Bench& b) { EXPECT_EQ(b.given, nullptr); },
                    .undo = destroy_output});
    for (const Row& row : {
             PUT_ROW(psp_outputBuffPutChar, 1, 'x'),
             PUT_ROW(psp_outputBuffPutInt16, 2, 0x1234),
             PUT_ROW(psp_outputBuffPutInt32, 4, 0x12345678),
             PUT_ROW(psp_outputBuffPutInt64, 8, 0x123456789),
             PUT_ROW(psp_outputBuffPutFloat32, 4, 1.5F),
             PUT_ROW(psp_outputBuffPutFloat64, 8, 1.5),
             PUT_ROW(psp_outputBuffPutBytes, 3, "abc", 3),
             PUT_ROW(psp_outputBuffPutString, 5, "abcde"),
             PUT_ROW(psp_outputBuffPutStringWithLength, 9, "abcde"),
         })
        rows.push_back(row);
}

#undef PUT_ROW

} // namespace

std::vector<Row> value_rows()
{
    std::vector<Row> rows;
    add_strings(rows);
    add_locales(rows);
    add_inputs(rows);
    add_outputs(rows);
    return rows;
}

} // namespace psptest
