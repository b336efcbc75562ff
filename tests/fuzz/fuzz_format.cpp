// Formatted output: any format with values to fit, through every form of output, beside the plain
// engine; and where no directive is one of the library's own, beside the C library.
#include "format_input.h"
#include "fuzz.h"
#include "library.h"
#include "memory_file.h"
#include "support/format_model.h"
#include "support/variadic.h"

#include "psp/format.h"
#include "psp/output.h"
#include "psp/stream.h"

#include <algorithm>
#include <clocale>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

using namespace psptest;

namespace {

// ---- The locale ----

char point[8] = ".";
char separator[8] = "";
char grouping[] = "\1\2"; // never looked at: groups have three digits
lconv conventions;

void use(const NumberTexts& texts)
{
    conventions.decimal_point = std::strcpy(point, texts.point.c_str());
    conventions.thousands_sep = std::strcpy(separator, texts.separator.c_str());
    conventions.grouping = grouping;
}

// ---- Checks ----

// What an input must give, and how it is called.
struct Case {
    const FormatInput& input;
    const FormatModel& expected;
    std::size_t limit; // of output that stops early

    const char* format() const
    {
        return input.format.c_str();
    }
    int length() const
    {
        return expected.code == sOKAY ? static_cast<int>(expected.text.size()) : -1;
    }
    void check_counts() const
    {
        for (const CountStored& count : expected.counts)
            CHECK(std::memcmp(count.where, &count.value, count.size) == 0);
    }
    // So that the next form has to store them again.
    void forget_counts() const
    {
        for (const CountStored& count : expected.counts)
            std::memset(const_cast<void*>(count.where), 0xA5, count.size);
    }
    // The whole output in a block of its own, with its NUL.
    void check_string(const char* str, const std::string& head = "") const
    {
        CHECK((str != nullptr) == (expected.code == sOKAY));
        if (str == nullptr)
            return;
        const std::string whole = head + expected.text;
        CHECK(std::memcmp(str, whole.c_str(), whole.size() + 1) == 0);
        check_counts();
        psp_freeMem(str, PSP_GLOBAL_TAG, __FILE__, __LINE__);
    }
};

// Gathers bytes until it has so many, and then ends the work with a code.
struct Sink {
    std::size_t limit = SIZE_MAX;
    std::string bytes{};

    static ZYN_RETCODE put(ZYN_OUTPUT_CTX ctx, uint32_t ch)
    {
        auto* self = static_cast<Sink*>(ctx);
        CHECK(ch <= 0xFF);
        if (self->bytes.size() == self->limit)
            return eBADWRITE;
        self->bytes.push_back(static_cast<char>(ch));
        return sOKAY;
    }
};

// `emit` formats into a sink.
template <class Emit>
void check_callback(const Case& test, Emit emit)
{
    test.forget_counts();
    Sink whole;
    CHECK(emit(whole) == test.expected.code);
    CHECK(whole.bytes == test.expected.text);
    test.check_counts();
    Sink cut{test.limit};
    const bool stops = test.limit < test.expected.text.size();
    CHECK(emit(cut) == (stops ? ZYN_RETCODE{eBADWRITE} : test.expected.code));
    CHECK(cut.bytes == test.expected.text.substr(0, test.limit));
}

// `print` formats into a buffer, which lies alone in memory: a byte beyond its size is seen.
template <class Print>
void check_buffer(const Case& test, std::size_t size, Print print)
{
    test.forget_counts();
    const std::unique_ptr<char[]> buffer(new char[size]);
    std::fill_n(buffer.get(), size, '\x5A');
    CHECK(print(buffer.get(), size) == test.length());
    if (size == 0)
        return;
    const std::string& text = test.expected.text;
    std::size_t end = std::min(text.size(), size - 1);
    CHECK(std::memcmp(buffer.get(), text.data(), end) == 0);
    if (test.expected.code == sOKAY)
        CHECK(buffer[end++] == '\0');
    for (; end < size; end++)
        CHECK(buffer[end] == '\x5A');
    test.check_counts();
}

// `print` formats into a stream. The text ends with the first NUL in it.
template <class Print>
void check_stream(const Case& test, Print print)
{
    const std::string text = test.expected.code == sOKAY ? test.expected.text.c_str() : "";
    const int32_t length = test.expected.code == sOKAY ? static_cast<int32_t>(text.size()) : -1;
    const MemoryFile file;
    const PSP_FILE_STREAM stream = psp_fopen(file.name().c_str(), "w", PSP_FILE_MODE_UTF8);
    CHECK(stream != nullptr);
    for (int i = 0; i < 2; i++) { // the second time there is a buffer already
        test.forget_counts();
        CHECK(print(stream) == length);
        test.check_counts();
    }
    psp_fclose(stream);
    CHECK(file.contents() == text + text);
}

void check_against_c_library(const Case& test, va_list args)
{
    if (test.input.foreign || test.expected.code != sOKAY)
        return;
    std::string buffer(test.expected.text.size() + 1, '\x5A');
    CHECK(vsnprintf(buffer.data(), buffer.size(), test.format(), args) == test.length());
    CHECK(buffer == test.expected.text + '\0');
}

// All forms read the one list: none of them moves it on.
void check_lists(const Case& test, va_list args)
{
    check_callback(
        test, [&](Sink& sink) { return psp_vfnprintf(Sink::put, &sink, test.format(), args); });
    const std::size_t length = test.expected.text.size();
    for (const std::size_t size :
         {std::size_t{0}, std::size_t{1}, test.limit, length, length + 1, length + 100})
        check_buffer(test, size, [&](char* buffer, std::size_t room) {
            return psp_vsnprintf(buffer, room, test.format(), args);
        });
    CHECK(psp_vsnprintf(nullptr, 0, test.format(), args) == test.length());
    test.forget_counts();
    test.check_string(psp_makeStrV("file", 1, PSP_GLOBAL_TAG, test.format(), args));
    check_stream(test,
                 [&](PSP_FILE_STREAM stream) { return psp_vfprintf(stream, test.format(), args); });
    check_against_c_library(test, args);
}

char* new_string(const std::string& text)
{
    return static_cast<char*>(psp_getMem(text.size() + 1, PSP_GLOBAL_TAG, PSP_MEM_COPY,
                                         text.c_str(), __FILE__, __LINE__));
}

// Builders onto the end of a string, which stays as it was when they fail.
template <class Append>
void check_appending(const Case& test, const char* head, Append append)
{
    test.forget_counts();
    char* const str = head != nullptr ? new_string(head) : nullptr;
    char* const result = append(str);
    test.check_string(result, head != nullptr ? head : "");
    if (result != nullptr || str == nullptr)
        return;
    CHECK(std::strcmp(str, head) == 0);
    psp_freeMem(str, PSP_GLOBAL_TAG, __FILE__, __LINE__);
}

// The result of a function with a status, which leaves `result` alone when it fails.
char* checked(ZYN_RETCODE rc, char* result)
{
    if (rc == sOKAY)
        return result;
    CHECK(rc == eNOMEMORY && result == nullptr);
    return nullptr;
}

// The functions that take the values themselves, with as many of them in registers as each leaves.
void check_variadic(const Case& test, const char* head)
{
    const auto& values = test.input.values;
    const char* const format = test.format();
    check_callback(test, [&](Sink& sink) {
        return call_with(values, psp_fnprintf, &Sink::put, &sink, format);
    });
    check_buffer(test, test.limit, [&](char* buffer, std::size_t room) {
        return call_with(values, psp_snprintf, buffer, room, format);
    });
    test.forget_counts();
    test.check_string(call_with(values, psp_makeStrVA, "file", 1, PSP_GLOBAL_TAG, format));
    test.forget_counts();
    char* made = nullptr;
    ZYN_RETCODE rc = call_with(values, psp_makeStrVA_rc, "file", 1, &made, PSP_GLOBAL_TAG, format);
    test.check_string(checked(rc, made));
    check_appending(test, head, [&](char* str) {
        return call_with(values, psp_appendStrVA, "file", 1, PSP_GLOBAL_TAG, str, format);
    });
    check_appending(test, head, [&](char* str) {
        char* result = nullptr;
        rc = call_with(values, psp_appendStrVA_rc, "file", 1, &result, PSP_GLOBAL_TAG, str, format);
        return checked(rc, result);
    });
    check_stream(test, [&](PSP_FILE_STREAM stream) {
        return call_with(values, psp_fprintf, stream, format);
    });
}

} // namespace

// In the place of the C library's: the locale belongs to the input.
extern "C" lconv* localeconv() noexcept
{
    return &conventions;
}

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    start_library();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider provider(data, size);
    const auto limit = provider.ConsumeIntegralInRange<std::size_t>(0, 200);
    const char* const head = provider.PickValueInArray<const char*>({nullptr, "", "head"});
    const FormatInput input = make_format_input(provider);
    use(input.texts);
    if (std::getenv("FUZZ_SHOW") != nullptr) // to see what an input stands for
        std::fprintf(stderr, "format: \"%s\"\n", input.format.c_str());
    const FormatModel expected(input.format, input.values, input.texts);
    if (expected.left_open)
        return 0;
    const Balance balance;
    const Case test{input, expected, limit};
    call_with_list(input.values, [&](va_list args) { check_lists(test, args); });
    check_variadic(test, head);
    return 0;
}
