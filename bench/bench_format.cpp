// The library's formatting into a buffer against the C library's snprintf.
//
// Both sides take turns in batches of the same run, so that a disturbance of the machine meets
// both, and each side counts with its quickest batch. The counters `psp_ns` and `peer_ns` tell the
// time of one call, `ratio` the first by the second: at most 0.5.
//
// Values change from call to call, as they do in a log; the text they make is checked to be the
// same on both sides before the clock runs.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <limits>

#include "psp.h"

namespace {

constexpr int CALLS_A_BATCH = 1000;

char text[512];

using Print = int (*)(char*, size_t, const char*, ...);

// Nanoseconds of one call. `format_one` prints its n-th text with the function it is given.
template <class FormatOne>
double timeBatch(Print print, FormatOne format_one)
{
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < CALLS_A_BATCH; ++i) {
        benchmark::DoNotOptimize(format_one(print, i));
        benchmark::ClobberMemory();
    }
    const std::chrono::duration<double, std::nano> elapsed =
        std::chrono::steady_clock::now() - begin;
    return elapsed.count() / CALLS_A_BATCH;
}

template <class FormatOne>
bool sameText(FormatOne format_one)
{
    char expected[sizeof text];
    for (int i = 0; i < CALLS_A_BATCH; ++i) {
        const int peer = format_one(snprintf, i);
        memcpy(expected, text, sizeof text);
        if (format_one(psp_snprintf, i) != peer || strcmp(text, expected) != 0)
            return false;
    }
    return true;
}

template <class FormatOne>
void compare(benchmark::State& state, FormatOne format_one)
{
    if (!sameText(format_one)) {
        state.SkipWithError("the two sides print different texts");
        return;
    }
    Print volatile library = psp_snprintf; // neither side may be known to the compiler
    Print volatile peer_print = snprintf;
    double psp = std::numeric_limits<double>::infinity();
    double peer = psp;
    for (auto _ : state) {
        psp = std::min(psp, timeBatch(library, format_one));
        peer = std::min(peer, timeBatch(peer_print, format_one));
    }
    state.counters["psp_ns"] = psp;
    state.counters["peer_ns"] = peer;
    state.counters["ratio"] = psp / peer;
}

int integer(Print print, int i)
{
    return print(text, sizeof text, "%d", i * 1237 - 500000);
}

int longInteger(Print print, int i)
{
    return print(text, sizeof text, "%llu", 12345678901234567ULL * static_cast<unsigned>(i + 1));
}

int hexadecimal(Print print, int i)
{
    return print(text, sizeof text, "%08x", static_cast<unsigned>(i) * 2654435761u);
}

int shortString(Print print, int i)
{
    return print(text, sizeof text, "%s", "a table name" + i % 4);
}

int longString(Print print, int i)
{
    return print(text, sizeof text, "%s",
                 "a longer string: the kind of statement that a server is asked to run and that "
                 "goes into its log whole, with all of its columns, tables and conditions" +
                     i % 4);
}

int logLine(Print print, int i)
{
    return print(text, sizeof text,
                 "[%s] connection %d: page %08x of '%-10s', lsn %llu, state %c\n", "storage", i,
                 static_cast<unsigned>(i) * 2654435761u, "orders",
                 12345678901234ULL + static_cast<unsigned>(i), 'a' + i % 26);
}

int measuredLogLine(Print print, int i)
{
    return print(nullptr, 0, "[%s] connection %d: page %08x of '%-10s', lsn %llu, state %c\n",
                 "storage", i, static_cast<unsigned>(i) * 2654435761u, "orders",
                 12345678901234ULL + static_cast<unsigned>(i), 'a' + i % 26);
}

// Odd numerators keep clear of ties, which the two sides round differently.
int fixed(Print print, int i)
{
    return print(text, sizeof text, "%.2f", (i * 2 + 1) * 12.37 / 64);
}

int general(Print print, int i)
{
    return print(text, sizeof text, "%g", (i * 2 + 1) * 12.37 / 64);
}

int generalSmall(Print print, int i)
{
    return print(text, sizeof text, "%g", (i * 2 + 1) * 12.37e-20 / 64);
}

int exponent(Print print, int i)
{
    return print(text, sizeof text, "%e", (i * 2 + 1) * 12.37e30 / 64);
}

BENCHMARK_CAPTURE(compare, integer, integer);
BENCHMARK_CAPTURE(compare, long_integer, longInteger);
BENCHMARK_CAPTURE(compare, hexadecimal, hexadecimal);
BENCHMARK_CAPTURE(compare, short_string, shortString);
BENCHMARK_CAPTURE(compare, long_string, longString);
BENCHMARK_CAPTURE(compare, log_line, logLine);
BENCHMARK_CAPTURE(compare, measured_log_line, measuredLogLine);
BENCHMARK_CAPTURE(compare, fixed, fixed);
BENCHMARK_CAPTURE(compare, general, general);
BENCHMARK_CAPTURE(compare, general_small, generalSmall);
BENCHMARK_CAPTURE(compare, exponent, exponent);

} // namespace
