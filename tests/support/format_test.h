// Formatting in tests: a callback that gathers and can fail, and functions that send one format and
// its values through the callback form and the bounded form at once.
#pragma once

#include "psp/format.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

// Formats that a compiler would reject are the point of many tests.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"

namespace psptest {

// The context of a callback that gathers bytes until it is told to refuse one.
struct ByteSink {
    std::string text{};
    std::size_t refused = SIZE_MAX; // number of the call, from 0, that is answered with `code`
    ZYN_RETCODE code = eBADWRITE;
    std::size_t calls = 0;

    static ZYN_RETCODE take(ZYN_OUTPUT_CTX ctx, uint32_t ch)
    {
        auto& self = *static_cast<ByteSink*>(ctx);
        if (ch > 255)
            ADD_FAILURE() << "not a byte: " << ch;
        if (self.calls++ == self.refused)
            return self.code;
        self.text += static_cast<char>(ch);
        return sOKAY;
    }
};

// What the bounded form tells without a buffer.
template <class... Args>
int measured(const char* fmt, Args... args)
{
    return psp_snprintf(nullptr, 0, fmt, args...);
}

// The text of a format that must succeed.
template <class... Args>
std::string formatted(const char* fmt, Args... args)
{
    ByteSink sink;
    EXPECT_EQ(psp_fnprintf(ByteSink::take, &sink, fmt, args...), sOKAY) << fmt;
    const int length = static_cast<int>(sink.text.size());
    EXPECT_EQ(measured(fmt, args...), length) << fmt;
    std::string stored(sink.text.size() + 1, '\x5A');
    EXPECT_EQ(psp_snprintf(stored.data(), stored.size(), fmt, args...), length) << fmt;
    EXPECT_EQ(stored, sink.text + '\0') << fmt;
    const std::string behind(64, '\x5A'); // so much room that no directive has to look for its end
    std::string roomy = sink.text + '\x5A' + behind;
    EXPECT_EQ(psp_snprintf(roomy.data(), roomy.size(), fmt, args...), length) << fmt;
    EXPECT_EQ(roomy, sink.text + '\0' + behind) << fmt;
    return sink.text;
}

// The code of a format that must fail, and what it made before.
struct FormatFailure {
    ZYN_RETCODE code;
    std::string text;

    bool operator==(const FormatFailure&) const = default;
};

inline void PrintTo(const FormatFailure& failure, std::ostream* out)
{
    *out << failure.code << " after \"" << failure.text << '"';
}

template <class... Args>
FormatFailure format_failure(const char* fmt, Args... args)
{
    ByteSink sink;
    const ZYN_RETCODE code = psp_fnprintf(ByteSink::take, &sink, fmt, args...);
    EXPECT_NE(code, sOKAY) << fmt;
    EXPECT_EQ(measured(fmt, args...), -1) << fmt;
    std::string stored(sink.text.size() + 8, '\x5A');
    const std::string rest(8, '\x5A'); // no NUL ends an output that failed
    EXPECT_EQ(psp_snprintf(stored.data(), stored.size(), fmt, args...), -1) << fmt;
    EXPECT_EQ(stored, sink.text + rest) << fmt;
    return {code, sink.text};
}

// The first bytes of an output that is too long to be made.
template <class... Args>
std::string start_of(std::size_t length, const char* fmt, Args... args)
{
    ByteSink sink{.refused = length, .code = sNOTFOUND};
    EXPECT_EQ(psp_fnprintf(ByteSink::take, &sink, fmt, args...), sNOTFOUND) << fmt;
    EXPECT_EQ(sink.calls, length + 1) << fmt;
    return sink.text;
}

} // namespace psptest

#pragma GCC diagnostic pop
