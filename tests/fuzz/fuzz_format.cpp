// Formatted output: formats made of whole directives, with arguments of every type. The forms of
// output are held against one another (callback, buffers of every size, a callback that stops) and,
// where no directive is one of the library's own, against the C library.
//
// A format never ends inside a directive: callers must not do that.
#include "fuzz.h"

#include "psp/format.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

// ---- Arguments ----

// An argument list as the System V calling convention of x86-64 lays it out, with the registers
// used up: all arguments lie in memory, in slots of eight bytes, long double aligned to sixteen.
class Arguments {
  public:
    template <class T>
    void add(T value)
    {
        static_assert(sizeof value <= 16);
        if constexpr (sizeof value > 8)
            used_ = (used_ + 15) / 16 * 16;
        CHECK(used_ + sizeof value <= sizeof memory_);
        std::memcpy(memory_ + used_, &value, sizeof value);
        used_ += sizeof value > 8 ? 16 : 8;
    }

    // Sets up `list`, which va_end() need not end.
    void start(va_list list)
    {
        const struct {
            unsigned gp_offset = 48;  // no integer register is left
            unsigned fp_offset = 176; // and no vector register
            void* overflow;
            void* registers = nullptr;
        } layout{.overflow = memory_};
        std::memcpy(list, &layout, sizeof layout);
    }

  private:
    alignas(16) char memory_[1024];
    std::size_t used_ = 0;
};

// A format, its arguments and what is known about it.
struct Case {
    std::string format;
    Arguments arguments;
    bool fails = false;   // a width, a precision or a value is too large
    bool foreign = false; // the C library has another idea of one of its directives
    std::vector<std::unique_ptr<char[]>> texts; // exact copies: reading beyond them is seen
    std::vector<std::pair<std::size_t, int64_t*>> counts; // length of the format before a %n
    std::vector<std::unique_ptr<int64_t>> storage;
};

// ---- Directives ----

struct Directive {
    std::string flags;
    bool has_width = false;
    int precision = -1; // -1: none, or a negative one
    std::string modifier;
    char conversion = 0;

    bool has(char flag) const
    {
        return flags.find(flag) != std::string::npos;
    }
};

// A width or precision in digits or as an argument; gives its value.
int add_number(FuzzedDataProvider& input, Case& test, int least)
{
    const int value = input.ConsumeBool() ? input.ConsumeIntegralInRange(-8, 24)
                                          : input.ConsumeIntegralInRange(-40, 300);
    if (value < 0 || input.ConsumeBool()) {
        test.format += '*';
        test.arguments.add(value);
        return value;
    }
    if (value == 300) {
        test.format += input.ConsumeBool() ? "2147483648" : "99999999999999999999";
        test.fails = true;
        return value;
    }
    // A width of 0 would read as a flag, which is as good.
    test.format += std::to_string(std::max(value, least));
    return std::max(value, least);
}

void add_integer(FuzzedDataProvider& input, Case& test, const Directive& directive)
{
    if (directive.modifier == "L") {
        test.foreign = true;
        return; // takes no argument
    }
    const auto value = input.ConsumeIntegral<int64_t>() >> input.ConsumeIntegralInRange(0, 63);
    const bool zero_in_octal = directive.conversion == 'o' && directive.has('#');
    test.foreign |= zero_in_octal && directive.precision >= 0;
    test.arguments.add(value);
}

void add_float(FuzzedDataProvider& input, Case& test, const Directive& directive)
{
    test.foreign = true;
    const auto bits = input.ConsumeIntegral<uint64_t>();
    double value;
    std::memcpy(&value, &bits, sizeof value);
    if (input.ConsumeBool())
        value = static_cast<double>(static_cast<int64_t>(bits)) / 1024;
    const bool fixed = std::strchr("fFaA", directive.conversion) != nullptr;
    test.fails |= fixed && std::isfinite(value) && std::fabs(value) >= 0x1p64; // no integer part
    if (directive.modifier == "L")
        test.arguments.add(static_cast<long double>(value));
    else
        test.arguments.add(value);
}

// With a precision the text may end without a NUL.
void add_text(FuzzedDataProvider& input, Case& test, const Directive& directive)
{
    test.foreign |= directive.has('0') || !directive.modifier.empty();
    if (input.ConsumeIntegralInRange(0, 7) == 0) {
        test.arguments.add(static_cast<const char*>(nullptr));
        return;
    }
    std::string text = input.ConsumeRandomLengthString(40);
    const auto limit = static_cast<std::size_t>(std::max(directive.precision, 0));
    if (directive.precision < 0 || text.size() < limit)
        text.push_back('\0');
    else
        test.foreign = true; // an address checker may take it that the C library reads on
    std::unique_ptr<char[]> copy(new char[text.size()]);
    std::copy(text.begin(), text.end(), copy.get());
    test.arguments.add(static_cast<const char*>(copy.get()));
    test.texts.push_back(std::move(copy));
}

void add_pointer(FuzzedDataProvider& input, Case& test, const Directive& directive)
{
    const auto value = input.ConsumeBool() ? 0 : input.ConsumeIntegral<uintptr_t>();
    test.foreign |= directive.has('+') || directive.has(' ') || !directive.modifier.empty();
    test.foreign |= value == 0 && (directive.precision >= 0 || directive.has('0'));
    test.arguments.add(value);
}

void add_count(Case& test, const Directive& directive, std::size_t before)
{
    test.foreign = true; // it would store there as well
    if (directive.modifier == "L")
        return; // takes no argument
    test.storage.push_back(std::make_unique<int64_t>(0));
    test.arguments.add(test.storage.back().get());
    test.counts.emplace_back(before, test.storage.back().get());
}

void add_argument(FuzzedDataProvider& input, Case& test, const Directive& directive,
                  std::size_t before)
{
    switch (directive.conversion) {
    case 'd':
    case 'i':
    case 'u':
    case 'o':
    case 'x':
    case 'X':
        return add_integer(input, test, directive);
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
        return add_float(input, test, directive);
    case 's':
        return add_text(input, test, directive);
    case 'p':
        return add_pointer(input, test, directive);
    case 'c':
        test.foreign |= directive.has_width || !directive.modifier.empty();
        return test.arguments.add(static_cast<int64_t>(input.ConsumeIntegral<int>()));
    case 'n':
        return add_count(test, directive, before);
    default: // '%', and what is no conversion: no argument
        test.foreign |= directive.conversion != '%' || test.format.substr(before) != "%%";
    }
}

void add_directive(FuzzedDataProvider& input, Case& test)
{
    static constexpr char flags[] = " #'+-0";
    static constexpr char conversions[] = "diuoxXsspcdiuoxXfFeEgGaAn%yq!";
    const std::size_t before = test.format.size();
    Directive directive;
    for (int left = input.ConsumeIntegralInRange(0, 3); left > 0; left--)
        directive.flags += flags[input.ConsumeIntegralInRange<std::size_t>(0, sizeof flags - 2)];
    test.format += '%' + directive.flags;
    directive.has_width = input.ConsumeBool();
    if (directive.has_width)
        add_number(input, test, 1);
    if (input.ConsumeBool()) {
        test.format += '.';
        directive.precision = input.ConsumeBool() ? std::max(add_number(input, test, 0), -1) : 0;
    }
    directive.modifier =
        input.PickValueInArray<const char*>({"", "", "", "hh", "h", "l", "ll", "z", "t", "j", "L"});
    directive.conversion =
        conversions[input.ConsumeIntegralInRange<std::size_t>(0, sizeof conversions - 2)];
    test.format += directive.modifier + directive.conversion;
    add_argument(input, test, directive, before);
}

void add_literal(FuzzedDataProvider& input, Case& test)
{
    for (const char c : input.ConsumeRandomLengthString(40))
        test.format += c == '\0' || c == '%' ? '.' : c;
}

// ---- Checks ----

// Gathers bytes until it has so many.
struct Sink {
    std::size_t limit;
    std::string bytes{};

    static ZYN_RETCODE put(ZYN_OUTPUT_CTX ctx, uint32_t ch)
    {
        auto* self = static_cast<Sink*>(ctx);
        CHECK(ch <= 0xFF);
        if (self->bytes.size() == self->limit)
            return sNOTFOUND;
        self->bytes.push_back(static_cast<char>(ch));
        return sOKAY;
    }
};

ZYN_RETCODE emit(Case& test, Sink& sink)
{
    va_list args;
    test.arguments.start(args);
    return psp_vfnprintf(Sink::put, &sink, test.format.c_str(), args);
}

int print(Case& test, const std::string& format, char* buffer, std::size_t size)
{
    va_list args;
    test.arguments.start(args);
    return psp_vsnprintf(buffer, size, format.c_str(), args);
}

// Every buffer lies alone in memory, so that a byte beyond its size is seen.
void check_buffer(Case& test, const std::string& complete, std::size_t size)
{
    std::unique_ptr<char[]> buffer(new char[size]);
    std::fill_n(buffer.get(), size, '\x5A');
    const int length = print(test, test.format, buffer.get(), size);
    CHECK(length == (test.fails ? -1 : static_cast<int>(complete.size())));
    if (size == 0)
        return;
    const std::size_t stored = std::min(complete.size(), size - 1);
    CHECK(std::string(buffer.get(), stored) == complete.substr(0, stored));
    CHECK(test.fails || buffer[stored] == '\0');
}

// A %n stores as many bytes as its type has of the length of the output before it.
void check_counts(Case& test)
{
    for (const auto& [before, stored] : test.counts) {
        const int length = print(test, test.format.substr(0, before), nullptr, 0);
        CHECK(length >= 0);
        CHECK(static_cast<uint8_t>(*stored) == static_cast<uint8_t>(length));
    }
}

void check_stop(Case& test, const std::string& complete, std::size_t limit)
{
    Sink sink{limit};
    const ZYN_RETCODE rc = emit(test, sink);
    if (complete.size() > limit)
        CHECK(rc == sNOTFOUND);
    CHECK(sink.bytes == complete.substr(0, limit));
}

void check_against_c_library(Case& test, const std::string& complete)
{
    std::vector<char> buffer(complete.size() + 1);
    va_list args;
    test.arguments.start(args);
    const int length = vsnprintf(buffer.data(), buffer.size(), test.format.c_str(), args);
    CHECK(length == static_cast<int>(complete.size()));
    CHECK(complete == buffer.data() || complete.find('\0') != std::string::npos);
    CHECK(std::equal(complete.begin(), complete.end(), buffer.begin()));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const auto limit = input.ConsumeIntegralInRange<std::size_t>(0, 200);
    Case test;
    for (int left = input.ConsumeIntegralInRange(1, 8); left > 0; left--) {
        add_literal(input, test);
        add_directive(input, test);
    }
    add_literal(input, test);

    if (std::getenv("FUZZ_SHOW") != nullptr) // to see what an input stands for
        std::fprintf(stderr, "format: \"%s\"\n", test.format.c_str());
    Sink sink{SIZE_MAX};
    CHECK(emit(test, sink) == (test.fails ? ZYN_RETCODE{eRANGE} : ZYN_RETCODE{sOKAY}));
    check_stop(test, sink.bytes, limit);
    for (const std::size_t room : {std::size_t{0}, std::size_t{1}, limit, sink.bytes.size(),
                                   sink.bytes.size() + 1, sink.bytes.size() + 100})
        check_buffer(test, sink.bytes, room);
    if (test.fails)
        return 0;
    check_counts(test);
    if (!test.foreign)
        check_against_c_library(test, sink.bytes);
    return 0;
}
