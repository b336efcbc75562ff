// UTF-8: counting characters, converting to wide ones, and copying with a check, beside other
// libraries that do the same or less. A pass over a text is one unit of work; the figures are for
// 1 KiB of it.
#include "row.h"

#include "psp/utf8.h"

#include <cstring>
#include <cwchar>
#include <iconv.h>
#include <locale.h>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#ifdef PSP_PEER_GLIB
#include <glib.h>
#endif
#ifdef PSP_PEER_ICU
#include <unicode/ustring.h>
#include <unicode/utf8.h>
#endif

namespace {

using bench::Row;
using benchmark::DoNotOptimize;

// ---- Texts ----

struct Script {
    const char* name;
    std::vector<const char*> words; // drawn at random: a short pattern would be learnt by heart
    double goal;                    // by the quickest peer
    double count_ns;                // of 1 KiB
};

const Script scripts[] = {
    {"ASCII",
     {"select ", "name, ", "price ", "from ", "orders ", "where ", "id ", "> ", "1000 ", "and ",
      "a.customer_number ", "= ", "b.customer_number ", "order by ", "1;\n"},
     0.15,
     1024 / 10.0},
    {"Latin",
     {"Où ",      "est ",   "passée ", "la ",   "forêt ", "près ",  "de ",
      "l’étang ", "gelé ",  "? ",      "Für ",  "die ",   "Größe ", "über ",
      "alles ",   "señor ", "mañana ", "está ", "así ",   "çà "},
     0.35,
     1024 / 3.0},
    {"CJK",
     {"数据", "库", "引擎", "，", "日志", "的", "文件", "。", "名称", "を", "変更する", "テーブル",
      "데이터", "베이스", "（", "一", "）", "索引"},
     0.35,
     1024 / 3.0},
    {"emoji", {"😀", "🚀🚀", "🐘", "💾💾💾", "🔒", "🧪", "🌍", "🎉🎉", "👍", "🏗"}, 0.35, 1024 / 3.0},
};

// Whole words of the script up to the size, and ASCII for the rest.
std::string text_of(const Script& script, size_t size)
{
    std::mt19937 random(1);
    std::string text;
    for (std::string word; text.size() + word.size() <= size;) {
        text += word;
        word = script.words[random() % script.words.size()];
    }
    text.resize(size, '.');
    return text;
}

// ---- The peers ----

// A conversion into room for the longest result; gives the bytes that it took.
class Iconv {
  public:
    Iconv(const char* to, size_t size) : code_(iconv_open(to, "UTF-8")), room_(size) {}
    ~Iconv()
    {
        iconv_close(code_);
    }
    Iconv(const Iconv&) = delete;
    Iconv& operator=(const Iconv&) = delete;

    char* room()
    {
        return room_.data();
    }

    size_t convert(const std::string& text)
    {
        char* in = const_cast<char*>(text.data());
        char* out = room_.data();
        size_t in_left = text.size();
        size_t out_left = room_.size();
        iconv(code_, &in, &in_left, &out, &out_left);
        return room_.size() - out_left;
    }

  private:
    iconv_t code_;
    std::vector<char> room_;
};

// A locale of UTF-8 for this thread, as long as a row runs.
class Utf8Locale {
  public:
    Utf8Locale() : made_(newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr)), before_(uselocale(made_)) {}
    ~Utf8Locale()
    {
        uselocale(before_);
        freelocale(made_);
    }
    Utf8Locale(const Utf8Locale&) = delete;
    Utf8Locale& operator=(const Utf8Locale&) = delete;

  private:
    locale_t made_;
    locale_t before_;
};

size_t mbs_to_wide(wchar_t* dest, const std::string& text)
{
    mbstate_t state{};
    const char* src = text.c_str();
    return mbsrtowcs(dest, &src, text.size() + 1, &state);
}

#ifdef PSP_PEER_ICU
size_t next_by_next(wchar_t* dest, const std::string& text)
{
    const auto size = static_cast<int32_t>(text.size());
    size_t count = 0;
    for (int32_t i = 0; i < size;) {
        UChar32 ch;
        U8_NEXT(text.data(), i, size, ch);
        if (ch < 0)
            return 0;
        if (dest != nullptr)
            dest[count] = ch;
        ++count;
    }
    return count;
}
#endif

// ---- Rows ----

// Passes over the text. The first one of a turn is outside the clock: it brings the memory near.
template <class Pass>
struct Turn {
    Pass pass;

    void operator()(size_t n) const
    {
        for (; n > 0; --n)
            DoNotOptimize(pass());
    }

    bench::Prepare first() const
    {
        return [turn = *this] { turn(1); };
    }
};

// The first characters, of which the one behind the last is the terminating 0.
std::string_view bytes_of(const std::wstring& wide, size_t chars)
{
    return {reinterpret_cast<const char*>(wide.c_str()), chars * sizeof(wchar_t)};
}

// What every pass is to give, and the bytes that it is to leave, if any.
struct Expected {
    size_t result;
    std::string_view bytes{};
};

// Whether a pass does, into memory that it has not been given before.
template <class Pass>
bool gives(Pass pass, Expected expected, void* made)
{
    const std::string_view bytes = expected.bytes;
    if (made == nullptr)
        return pass() == expected.result;
    std::memset(made, '?', bytes.size());
    return pass() == expected.result && std::memcmp(made, bytes.data(), bytes.size()) == 0;
}

// A peer's pass over the text.
template <class Pass>
void add_peer(Row& row, const char* name, Expected expected, Pass pass, void* made = nullptr)
{
    if (!gives(pass, expected, made))
        row.fail(std::string(name) + " gives another result");
    const Turn<Pass> turn{pass};
    row.peer(name, turn, bench::NO_GOAL, turn.first());
}

template <class Pass>
void run(Row& row, const Script& script, size_t size, Expected expected, Pass pass,
         void* made = nullptr)
{
    if (!gives(pass, expected, made))
        row.fail("the library gives another result");
    const Turn<Pass> turn{pass};
    row.psp(turn, turn.first());
    row.divide_by(static_cast<double>(size) / 1024);
    row.best_peer(script.goal);
    row.run();
}

void count(Row& row, const Script& script, size_t size)
{
    const Utf8Locale locale;
    const std::string text = text_of(script, size);
    const Expected chars{mbs_to_wide(nullptr, text)};
    add_peer(row, "mbsrtowcs", chars, [&] { return mbs_to_wide(nullptr, text); });
#ifdef PSP_PEER_GLIB
    add_peer(row, "GLib, unchecked", chars, [&] {
        return static_cast<size_t>(g_utf8_strlen(text.data(), static_cast<gssize>(size)));
    });
#endif
#ifdef PSP_PEER_ICU
    add_peer(row, "ICU U8_NEXT", chars, [&] { return next_by_next(nullptr, text); });
#endif
    row.at_most(script.count_ns);
    run(row, script, size, chars,
        [&] { return psp_countUTF8chars(text.data(), size, PSP_UTF8_ERROR_BREAK); });
}

#ifdef PSP_PEER_GLIB
// GLib makes the memory as well.
template <class Make>
void add_glib(Row& row, const char* name, Expected expected, Make make)
{
    const auto same = [&] {
        glong written = 0;
        gunichar* const made = make(&written);
        const bool right =
            sizeof(gunichar) * static_cast<size_t>(written) == expected.bytes.size() &&
            std::memcmp(made, expected.bytes.data(), expected.bytes.size()) == 0;
        g_free(made);
        return right;
    };
    if (!same())
        row.fail(std::string(name) + " makes other characters");
    add_peer(row, name, {expected.result}, [make] {
        glong written = 0;
        g_free(make(&written));
        return static_cast<size_t>(written);
    });
}
#endif

void widen(Row& row, const Script& script, size_t size)
{
    const Utf8Locale locale;
    const std::string text = text_of(script, size);
    std::wstring wide(size + 1, L'\0');
    wide.resize(mbs_to_wide(wide.data(), text));
    const Expected chars{wide.size(), bytes_of(wide, wide.size())};
    const Expected terminated{wide.size() + 1, bytes_of(wide, wide.size() + 1)};
    std::vector<wchar_t> dest(size + 1);
    add_peer(
        row, "mbsrtowcs", chars, [&] { return mbs_to_wide(dest.data(), text); }, dest.data());
    Iconv iconv("WCHAR_T", 4 * size);
    add_peer(
        row, "iconv", {chars.bytes.size(), chars.bytes}, [&] { return iconv.convert(text); },
        iconv.room());
#ifdef PSP_PEER_GLIB
    const auto length = static_cast<glong>(size);
    add_glib(row, "GLib", chars, [&](glong* written) {
        return g_utf8_to_ucs4(text.data(), length, nullptr, written, nullptr);
    });
    add_glib(row, "GLib, unchecked", chars,
             [&](glong* written) { return g_utf8_to_ucs4_fast(text.data(), length, written); });
#endif
#ifdef PSP_PEER_ICU
    add_peer(
        row, "ICU U8_NEXT", chars, [&] { return next_by_next(dest.data(), text); }, dest.data());
    std::vector<UChar> units(size + 1);
    int32_t expected = 0;
    UErrorCode error = U_ZERO_ERROR;
    u_strFromUTF8(nullptr, 0, &expected, text.data(), static_cast<int32_t>(size), &error);
    add_peer(row, "ICU to UTF-16", {static_cast<size_t>(expected)}, [&] {
        int32_t made = 0;
        UErrorCode status = U_ZERO_ERROR;
        u_strFromUTF8(units.data(), static_cast<int32_t>(units.size()), &made, text.data(),
                      static_cast<int32_t>(size), &status);
        return static_cast<size_t>(made);
    });
#endif
    run(
        row, script, size, terminated,
        [&] {
            return psp_utf8_to_wchar_len(dest.data(), dest.size(), text.data(), size,
                                         PSP_UTF8_ERROR_BREAK);
        },
        dest.data());
}

void copy(Row& row, const Script& script, size_t size)
{
    const std::string text = text_of(script, size);
    const Expected same{size, text};
    std::vector<char> dest(size);
    Iconv iconv("UTF-8", size);
    add_peer(
        row, "iconv", same, [&] { return iconv.convert(text); }, iconv.room());
#ifdef PSP_PEER_GLIB
    const auto check_and_copy = [&] {
        if (!g_utf8_validate(text.data(), static_cast<gssize>(size), nullptr))
            return size_t{0};
        std::memcpy(dest.data(), text.data(), size);
        benchmark::ClobberMemory();
        return size;
    };
    add_peer(row, "GLib check and memcpy", same, check_and_copy, dest.data());
#endif
#ifdef PSP_PEER_ICU
    const auto read_and_copy = [&] {
        if (next_by_next(nullptr, text) == 0)
            return size_t{0};
        std::memcpy(dest.data(), text.data(), size);
        benchmark::ClobberMemory();
        return size;
    };
    add_peer(row, "ICU U8_NEXT and memcpy", same, read_and_copy, dest.data());
#endif
    run(
        row, script, size, same,
        [&] {
            size_t chars = 0;
            return psp_copyUTF8Chars(dest.data(), size, text.data(), size, &chars,
                                     PSP_UTF8_ERROR_BREAK);
        },
        dest.data());
}

struct Utf8Rows {
    Utf8Rows()
    {
        const struct {
            const char* name;
            void (*body)(Row&, const Script&, size_t);
        } works[] = {{"count", count}, {"to wide", widen}, {"copy", copy}};
        const struct {
            const char* name;
            size_t size;
        } sizes[] = {{"4 KiB", 4096}, {"1 MiB", 1024 * 1024}};
        for (const auto& work : works)
            for (const Script& script : scripts)
                for (const auto& size : sizes)
                    bench::Registered(
                        "utf8", std::string(work.name) + ", " + script.name + ", " + size.name,
                        "ns/KiB", [&script, body = work.body, bytes = size.size](Row& row) {
                            body(row, script, bytes);
                        });
    }
};

const Utf8Rows rows;

} // namespace
