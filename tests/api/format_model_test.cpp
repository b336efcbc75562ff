// The formatting engine beside a plain model of it: random directives with random values, through
// the callback, through a callback that refuses any of the bytes, and into buffers of every size.
#include "support/format_model.h"
#include "support/format_test.h"
#include "support/psp_test.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstring>
#include <vector>

using namespace psptest;

namespace {

// A format and its values as a failure shows them.
std::string told(const RandomFormat& format)
{
    std::string text = '"' + format.fmt + '"';
    for (const FormatValue& value : format.values)
        std::visit(
            [&](auto v) {
                char shown[80];
                if constexpr (std::is_same_v<decltype(v), const void*>)
                    std::snprintf(shown, sizeof shown, ", %p", v);
                else if constexpr (std::is_integral_v<decltype(v)>)
                    std::snprintf(shown, sizeof shown, ", %jd", static_cast<intmax_t>(v));
                else
                    std::snprintf(shown, sizeof shown, ", %.25Lg", static_cast<long double>(v));
                text += shown;
            },
            value);
    return text;
}

struct Run {
    const FormatModel& expected;
    CountTargets& targets;
    std::size_t refused; // of the second callback
    bool every_size;     // of the buffer, or only a few
    bool equal = true;

    void expect(bool holds, const char* what)
    {
        if (!holds)
            ADD_FAILURE() << what;
        equal = equal && holds;
    }
};

constexpr uint64_t untouched = 0x5A5A5A5A5A5A5A5A;

// Whether '%n' stored what it must, and nothing beside it.
bool counts_match(const CountTargets& targets, const FormatModel& expected)
{
    CountTargets wanted;
    wanted.words.fill(untouched);
    for (const CountStored& count : expected.counts) {
        const auto at = static_cast<const char*>(count.where) -
                        reinterpret_cast<const char*>(targets.words.data());
        std::memcpy(reinterpret_cast<char*>(wanted.words.data()) + at, &count.value, count.size);
    }
    return wanted.words == targets.words;
}

// Room of `size` bytes: what fits is there, a NUL ends it unless the formatting failed, and the
// bytes behind are as before.
bool stored_right(const char* room, std::size_t room_size, std::size_t size,
                  const FormatModel& expected)
{
    const std::size_t fitting = size == 0 ? 0 : std::min(size - 1, expected.text.size());
    std::size_t end = fitting;
    bool right = std::memcmp(room, expected.text.data(), fitting) == 0;
    if (expected.code == sOKAY && size != 0)
        right = right && room[end++] == '\0';
    while (right && end < room_size)
        right = room[end++] == 'Z';
    return right;
}

void run_bounded(Run& run, const char* fmt, va_list args)
{
    const std::string& text = run.expected.text;
    const int result = run.expected.code == sOKAY ? static_cast<int>(text.size()) : -1;
    const std::size_t plenty = text.size() + 64; // no directive has to look for the end
    std::string room(plenty + 8, 'Z');
    const std::size_t step = run.every_size ? 1 : 1 + text.size() / 3;
    std::vector<std::size_t> sizes{plenty};
    for (std::size_t size = 0; size <= text.size() + 4; size += step)
        sizes.push_back(size);
    for (const std::size_t size : sizes) {
        std::fill(room.begin(), room.end(), 'Z');
        run.targets.words.fill(untouched);
        run.expect(psp_vsnprintf(room.data(), size, fmt, args) == result, "bounded result");
        run.expect(stored_right(room.data(), room.size(), size, run.expected), "bounded text");
        run.expect(counts_match(run.targets, run.expected), "bounded counts");
    }
    run.expect(psp_vsnprintf(nullptr, 0, fmt, args) == result, "measured result");
}

// All forms read the one list: none of them moves it on.
void drive(Run& run, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    run.targets.words.fill(untouched);
    ByteSink sink;
    run.expect(psp_vfnprintf(ByteSink::take, &sink, fmt, args) == run.expected.code, "code");
    run.expect(sink.text == run.expected.text, "text");
    run.expect(counts_match(run.targets, run.expected), "counts");
    if (run.refused < run.expected.text.size()) {
        ByteSink refusing{.refused = run.refused, .code = eUNAVAIL};
        run.expect(psp_vfnprintf(ByteSink::take, &refusing, fmt, args) == eUNAVAIL, "code refused");
        run.expect(refusing.calls == run.refused + 1, "calls when refused");
        run.expect(run.expected.text.starts_with(refusing.text), "text before refused");
    }
    run_bounded(run, fmt, args);
    va_end(args);
}

void check(uint32_t seed, int directives)
{
    CountTargets targets;
    FormatGenerator generator(seed, targets);
    std::mt19937 random(seed);
    for (int done = 0; done < directives; done += generator.directives) {
        const RandomFormat format = generator.next();
        const FormatModel expected(format.fmt, format.values);
        const std::size_t refused = random() % (expected.text.size() + 1);
        Run run{expected, targets, refused, random() % 4 == 0};
        call_with_values(drive, run, format);
        ASSERT_TRUE(run.equal) << told(format) << " gives \"" << expected.text << '"';
    }
}

class FormatModelTest : public ::testing::TestWithParam<uint32_t> {};

TEST_P(FormatModelTest, AgreesOnRandomDirectives)
{
    check(GetParam(), under_asan || under_tsan ? 10000 : 50000);
}

INSTANTIATE_TEST_SUITE_P(Seeds, FormatModelTest, ::testing::Range(1u, 5u));

} // namespace
