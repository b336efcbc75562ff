// Formatting into a buffer and into new memory beside other formatters. All of them learn their
// formats at run time only.
//
// Values change from call to call, as they do in a log; before the clock runs, every side must have
// printed the same texts.

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "row.h"

#ifdef PSP_PEER_STB
#define STB_SPRINTF_IMPLEMENTATION
#define STB_SPRINTF_STATIC
#include <stb_sprintf.h>
#endif
#ifdef PSP_PEER_FMT
#include <fmt/core.h>
#endif
#ifdef PSP_PEER_APR
#include <apr_strings.h>
#endif
#ifdef PSP_PEER_GLIB
#include <glib.h>
#endif

namespace {

using bench::Registered;
using bench::Row;

constexpr int VALUES = 1000; // that the texts are compared for

char text[512];

// ---- Rows of texts ----

// A row whose sides print their i-th text into `text`.
class TextRow {
  public:
    explicit TextRow(Row& row) : row_(row) {}

    template <class Print>
    void psp(Print print)
    {
        for (int i = 0; i < VALUES; ++i) {
            print(i);
            expected_.emplace_back(text);
        }
        row_.psp(repeated(print));
    }

    template <class Print>
    void peer(const char* name, Print print, double goal = bench::NO_GOAL)
    {
        for (int i = 0; i < VALUES && different_.empty(); ++i) {
            print(i);
            if (expected_[static_cast<size_t>(i)] != text)
                different_ = std::string(name) + " prints " + text;
        }
        row_.peer(name, repeated(print), goal);
    }

    void run(double best_goal)
    {
        if (!different_.empty())
            return row_.fail(different_);
        row_.best_peer(best_goal);
        row_.run();
    }

  private:
    template <class Print>
    static bench::Work repeated(Print print)
    {
        return [print](size_t n) {
            for (size_t i = 0; i < n; ++i) {
                print(static_cast<int>(i));
                benchmark::ClobberMemory();
            }
        };
    }

    Row& row_;
    std::vector<std::string> expected_{};
    std::string different_{};
};

// APR prints the same where it knows the directive and gives each digit: no %llu, no zero before
// the point of %g.
enum class Apr { SAME, OTHER };

#ifdef PSP_PEER_FMT
template <class... Values>
void print_fmt(const char* format, const Values&... values)
{
    const auto result = fmt::format_to_n(text, sizeof text - 1, fmt::runtime(format), values...);
    *result.out = '\0';
}
#define FMT_PRINT(...) [](int i) { print_fmt(__VA_ARGS__); }
#else
#define FMT_PRINT(...) 0
#endif

// `call` gives the i-th text to a function like snprintf, `call_fmt` prints it with {fmt}.
template <class Call, class CallFmt>
void compare(Row& row, double best_goal, Apr apr, Call call, CallFmt call_fmt)
{
    const auto side = [call](auto* function) {
        return [call, function](int i) { call(function, i); };
    };
    TextRow sides(row);
    sides.psp(side(psp_snprintf));
    sides.peer("snprintf", side(snprintf), 0.5);
#ifdef PSP_PEER_STB
    sides.peer("stb", side(stbsp_snprintf));
#endif
#ifdef PSP_PEER_APR
    if (apr == Apr::SAME)
        sides.peer("APR", side(apr_snprintf));
#endif
#ifdef PSP_PEER_FMT
    sides.peer("fmt", call_fmt);
#endif
    sides.run(best_goal);
}

// ---- Integers and strings ----

constexpr double PLAIN_GOAL = 1.0;

void integer(Row& row)
{
    compare(
        row, PLAIN_GOAL, Apr::SAME,
        [](auto print, int i) { print(text, sizeof text, "%d", i * 1237 - 500000); },
        FMT_PRINT("{}", i * 1237 - 500000));
}

unsigned long long long_value(int i)
{
    return 12345678901234567ULL * static_cast<unsigned>(i % VALUES + 1);
}

void longInteger(Row& row)
{
    compare(
        row, PLAIN_GOAL, Apr::OTHER,
        [](auto print, int i) { print(text, sizeof text, "%llu", long_value(i)); },
        FMT_PRINT("{}", long_value(i)));
}

unsigned scattered(int i)
{
    return static_cast<unsigned>(i) * 2654435761u;
}

void hexadecimal(Row& row)
{
    compare(
        row, PLAIN_GOAL, Apr::SAME,
        [](auto print, int i) { print(text, sizeof text, "%08x", scattered(i)); },
        FMT_PRINT("{:08x}", scattered(i)));
}

const char* short_value(int i)
{
    return &"a table name"[i % 4];
}

void shortString(Row& row)
{
    compare(
        row, PLAIN_GOAL, Apr::SAME,
        [](auto print, int i) { print(text, sizeof text, "%s", short_value(i)); },
        FMT_PRINT("{}", short_value(i)));
}

const char* long_value_text(int i)
{
    return &"a longer string: the kind of statement that a server is asked to run and that goes "
            "into its log whole, with all of its columns, tables and conditions"[i % 4];
}

void longString(Row& row)
{
    compare(
        row, PLAIN_GOAL, Apr::SAME,
        [](auto print, int i) { print(text, sizeof text, "%s", long_value_text(i)); },
        FMT_PRINT("{}", long_value_text(i)));
}

void longLiteral(Row& row)
{
    compare(
        row, PLAIN_GOAL, Apr::SAME,
        [](auto print, int i) { print(text, sizeof text, long_value_text(i)); },
        FMT_PRINT(long_value_text(i)));
}

#define LOG_VALUES                                                                                 \
    "storage", i, scattered(i), "orders", 12345678901234ULL + static_cast<unsigned>(i),            \
        static_cast<char>('a' + i % 26)

void logLine(Row& row)
{
    compare(
        row, PLAIN_GOAL, Apr::OTHER,
        [](auto print, int i) {
            print(text, sizeof text,
                  "[%s] connection %d: page %08x of '%-10s', lsn %llu, state %c\n", LOG_VALUES);
        },
        FMT_PRINT("[{}] connection {}: page {:08x} of '{:<10}', lsn {}, state {}\n", LOG_VALUES));
}

const Registered integer_row("format", "%d", "ns/call", integer);
const Registered long_integer_row("format", "%llu", "ns/call", longInteger);
const Registered hexadecimal_row("format", "%08x", "ns/call", hexadecimal);
const Registered short_string_row("format", "%s, 10 bytes", "ns/call", shortString);
const Registered long_string_row("format", "%s, 150 bytes", "ns/call", longString);
const Registered long_literal_row("format", "literal, 150 bytes", "ns/call", longLiteral);
const Registered log_line_row("format", "line of six directives", "ns/call", logLine);

// ---- Floats ----

constexpr double FLOAT_GOAL = 1.2;

// Odd numerators keep clear of ties, which not all sides round alike.
double float_value(int i)
{
    return (i % VALUES * 2 + 1) * 12.37 / 64;
}

void fixed(Row& row)
{
    compare(
        row, FLOAT_GOAL, Apr::SAME,
        [](auto print, int i) { print(text, sizeof text, "%5.2f", float_value(i)); },
        FMT_PRINT("{:5.2f}", float_value(i)));
}

void general(Row& row)
{
    compare(
        row, FLOAT_GOAL, Apr::OTHER,
        [](auto print, int i) { print(text, sizeof text, "%g", float_value(i)); },
        FMT_PRINT("{:g}", float_value(i)));
}

void generalSmall(Row& row)
{
    compare(
        row, FLOAT_GOAL, Apr::SAME,
        [](auto print, int i) { print(text, sizeof text, "%g", float_value(i) * 1e-20); },
        FMT_PRINT("{:g}", float_value(i) * 1e-20));
}

void exponent(Row& row)
{
    compare(
        row, FLOAT_GOAL, Apr::SAME,
        [](auto print, int i) { print(text, sizeof text, "%e", float_value(i) * 1e30); },
        FMT_PRINT("{:e}", float_value(i) * 1e30));
}

const Registered fixed_row("format", "%5.2f", "ns/call", fixed);
const Registered general_row("format", "%g", "ns/call", general);
const Registered general_small_row("format", "%g of 1e-20", "ns/call", generalSmall);
const Registered exponent_row("format", "%e", "ns/call", exponent);

// ---- New strings ----

constexpr char MESSAGE[] = "table %s, row %d: %s";

void makeStr(Row& row)
{
    const bench::Server server;
    TextRow sides(row);
    sides.psp([](int i) {
        char* const made =
            psp_makeStrVA(__FILE__, __LINE__, PSP_THREAD_TAG, MESSAGE, "orders", i, short_value(i));
        strcpy(text, made);
        psp_freeMem(made, PSP_THREAD_TAG, __FILE__, __LINE__);
    });
    sides.peer(
        "asprintf",
        [](int i) {
            char* made;
            if (asprintf(&made, MESSAGE, "orders", i, short_value(i)) < 0)
                std::abort();
            strcpy(text, made);
            free(made);
        },
        0.7);
    sides.run(bench::NO_GOAL);
}

// Ten pieces onto one string, which is given back then.
void appendStr(Row& row)
{
    constexpr int PIECES = 10;
    const bench::Server server;
    TextRow sides(row);
    sides.psp([](int i) {
        char* grown = nullptr;
        for (int piece = 0; piece < PIECES; ++piece)
            grown = psp_appendStrVA(__FILE__, __LINE__, PSP_THREAD_TAG, grown, MESSAGE, "orders",
                                    i + piece, short_value(i));
        strcpy(text, grown);
        psp_freeMem(grown, PSP_THREAD_TAG, __FILE__, __LINE__);
    });
#ifdef PSP_PEER_GLIB
    sides.peer(
        "GString",
        [](int i) {
            GString* const grown = g_string_new(nullptr);
            for (int piece = 0; piece < PIECES; ++piece)
                g_string_append_printf(grown, MESSAGE, "orders", i + piece, short_value(i));
            strcpy(text, grown->str);
            g_string_free(grown, TRUE);
        },
        1.0);
#endif
    row.divide_by(PIECES);
    sides.run(bench::NO_GOAL);
}

const Registered make_str_row("format", "makeStr", "ns/call", makeStr);
const Registered append_str_row("format", "appendStr", "ns/call", appendStr);

} // namespace
