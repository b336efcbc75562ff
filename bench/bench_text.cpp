// Text streams against the C library's, which keep the buffer that they choose for themselves, and
// streams of UTF-16 against iconv in front of them. A figure is the time of a byte of UTF-8. A
// batch is a whole file; it is opened anew outside the clock, and what was read or written is the
// same on all sides.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <iconv.h>

#include "row.h"
#include "text_file.h"

namespace bench {

namespace {

constexpr size_t LINES = 1000;

// Lines as a server's files have them, 30 to 110 bytes long. `tail` ends each of them.
std::vector<std::string> lines_of(const char* tail)
{
    std::vector<std::string> lines;
    for (size_t i = 0; i < LINES; ++i) {
        std::string line = "line " + std::to_string(i * 7919) + ": ";
        for (size_t word = 0; word < 2 + i * 13 % 9; ++word)
            line += "column " + std::to_string(word) + ' ';
        lines.push_back(line + tail + '\n');
    }
    return lines;
}

const char* const ASCII_TAIL = "of the table";
const char* const LATIN_TAIL = "f\xC3\xBCr die gr\xC3\xB6\xC3\x9F"
                               "ere Tabelle";
const char* const MIXED_TAIL = "\xCE\xB1\xCE\xB2\xCE\xB3\xCE\xB4 \xE8\xA1\xA8\xE3\x81\xAE\xE5\x88"
                               "\x97 \xF0\x9F\x98\x80 \xD0\xB8\xD0\xBB\xD0\xB8";

std::string joined(const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& line : lines)
        text += line;
    return text;
}

// ---- The two kinds of stream ----

struct PspStream {
    PSP_FILE_STREAM file = nullptr;
    char* line = nullptr;
    uint32_t size = 0;

    PspStream() = default;
    ~PspStream()
    {
        close();
        psp_freeMem(line, PSP_THREAD_TAG, __FILE__, __LINE__);
    }
    PspStream(const PspStream&) = delete;
    PspStream& operator=(const PspStream&) = delete;

    void open(const char* name, const char* mode, PSP_FILE_MODE fmode = PSP_FILE_MODE_UTF8)
    {
        close();
        file = psp_fopen(name, mode, fmode);
        if (file == nullptr)
            std::abort();
    }
    void close()
    {
        if (file != nullptr)
            psp_fclose(file);
        file = nullptr;
    }
    int getc() const
    {
        return psp_fgetc(file);
    }
    const char* getline()
    {
        return psp_fGetLine(file, &line, &size, PSP_THREAD_TAG);
    }
    bool puts(const char* text) const
    {
        return psp_fputs(text, file) >= 0;
    }
    template <class... Values>
    void print(const char* format, Values... values) const
    {
        psp_fprintf(file, format, values...);
    }
    void flush() const
    {
        psp_fflush(file);
    }
};

struct StdStream {
    std::FILE* file = nullptr;
    char* line = nullptr;
    size_t size = 0;

    StdStream() = default;
    ~StdStream()
    {
        close();
        std::free(line);
    }
    StdStream(const StdStream&) = delete;
    StdStream& operator=(const StdStream&) = delete;

    void open(const char* name, const char* mode)
    {
        close();
        file = std::fopen(name, mode);
        if (file == nullptr)
            std::abort();
    }
    void close()
    {
        if (file != nullptr)
            std::fclose(file);
        file = nullptr;
    }
    int getc() const
    {
        return std::getc(file);
    }
    int getc_unlocked() const
    {
        return ::getc_unlocked(file);
    }
    const char* getline()
    {
        return ::getline(&line, &size, file) >= 0 ? line : nullptr;
    }
    bool puts(const char* text) const
    {
        return std::fputs(text, file) >= 0;
    }
    template <class... Values>
    void print(const char* format, Values... values) const
    {
        std::fprintf(file, format, values...);
    }
    void flush() const
    {
        std::fflush(file);
    }
};

// What every row has: the library, a file, and a stream of either kind that leads to it.
struct Streams {
    const Server server{};
    const TextFile file{};
    PspStream own{};
    StdStream other{};

    Prepare own_opener(const char* mode, PSP_FILE_MODE fmode = PSP_FILE_MODE_UTF8)
    {
        return [this, mode, fmode] { own.open(file.name(), mode, fmode); };
    }
    Prepare other_opener(const char* mode)
    {
        return [this, mode] { other.open(file.name(), mode); };
    }

    // What is in the file after a side's work.
    std::string written(const Prepare& open, const Prepare& work) const
    {
        open();
        work();
        return file.contents();
    }
};

// ---- What a batch does with a stream ----

template <class Get>
std::string read_by_characters(const Prepare& open, size_t n, Get get)
{
    open();
    std::string text(n, '\0');
    for (char& byte : text)
        byte = static_cast<char>(get());
    return text;
}

template <class Stream>
std::string read_by_lines(const Prepare& open, Stream& stream)
{
    open();
    std::string text;
    while (const char* const line = stream.getline())
        text += line;
    return text;
}

template <class Stream>
void print_lines(Stream& stream, size_t n)
{
    for (size_t i = 0; i < n; ++i)
        stream.print("%s: page %08x, %5d rows, %lld bytes\n", "storage",
                     static_cast<unsigned>(i * 2654435761U), static_cast<int>(i * 7 % 5000),
                     static_cast<long long>(i) * 123456789);
    stream.flush();
}

template <class Stream>
void put_lines(Stream& stream, const std::vector<std::string>& lines)
{
    for (const std::string& line : lines)
        stream.puts(line.c_str());
    stream.flush();
}

// ---- Reading ----

// The library leaves it to the caller that threads take turns with a stream, as getc_unlocked does;
// getc, which takes a lock for each character, is what programs write.
void read_character(Row& row)
{
    Streams streams;
    const std::string text = joined(lines_of(ASCII_TAIL));
    streams.file.fill(text);
    const auto open_own = streams.own_opener("r");
    const auto open_other = streams.other_opener("r");
    bool same = true;
    const auto reading = [&](const Prepare& open, auto get) -> Work {
        same = same && read_by_characters(open, text.size(), get) == text;
        return [get](size_t n) {
            int sum = 0;
            for (; n != 0; --n)
                sum += get();
            benchmark::DoNotOptimize(sum);
        };
    };
    const PspStream& own = streams.own;
    const StdStream& other = streams.other;

    row.batch(text.size());
    row.psp(reading(open_own, [&own] { return own.getc(); }), open_own);
    row.peer("getc", reading(open_other, [&other] { return other.getc(); }), 0.8, open_other);
    row.peer("getc_unlocked", reading(open_other, [&other] { return other.getc_unlocked(); }),
             NO_GOAL, open_other);
    if (!same)
        return row.fail("the text was not read");
    row.run();
}

void read_line(Row& row)
{
    Streams streams;
    const std::string text = joined(lines_of(ASCII_TAIL));
    streams.file.fill(text);
    const auto open_own = streams.own_opener("r");
    const auto open_other = streams.other_opener("r");
    if (read_by_lines(open_own, streams.own) != text ||
        read_by_lines(open_other, streams.other) != text)
        return row.fail("the text was not read");

    const auto read = [](auto& stream, size_t n) {
        for (; n != 0; --n)
            benchmark::DoNotOptimize(stream.getline());
    };
    row.batch(LINES);
    row.divide_by(static_cast<double>(text.size()) / LINES);
    row.psp([&](size_t n) { read(streams.own, n); }, open_own);
    row.peer(
        "getline", [&](size_t n) { read(streams.other, n); }, 1.2, open_other);
    row.run();
}

// ---- Writing ----

void put_string(Row& row)
{
    Streams streams;
    const std::vector<std::string> lines = lines_of(ASCII_TAIL);
    const std::string text = joined(lines);
    const auto open_own = streams.own_opener("w");
    const auto open_other = streams.other_opener("w");
    const auto put_own = [&] { put_lines(streams.own, lines); };
    const auto put_other = [&] { put_lines(streams.other, lines); };
    if (streams.written(open_own, put_own) != text ||
        streams.written(open_other, put_other) != text)
        return row.fail("the text was not written");

    row.batch(1);
    row.divide_by(static_cast<double>(text.size()));
    row.psp([&](size_t) { put_own(); }, open_own);
    row.peer(
        "fputs", [&](size_t) { put_other(); }, 1.6, open_other);
    row.run();
}

void print(Row& row)
{
    Streams streams;
    const auto open_own = streams.own_opener("w");
    const auto open_other = streams.other_opener("w");
    const std::string text = streams.written(open_own, [&] { print_lines(streams.own, LINES); });
    if (streams.written(open_other, [&] { print_lines(streams.other, LINES); }) != text)
        return row.fail("the two sides print different texts");

    row.batch(LINES);
    row.divide_by(static_cast<double>(text.size()) / LINES);
    row.psp([&](size_t n) { print_lines(streams.own, n); }, open_own);
    row.peer(
        "fprintf", [&](size_t n) { print_lines(streams.other, n); }, 1.0, open_other);
    row.run();
}

// ---- UTF-16 ----

class Converter {
  public:
    Converter(const char* to, const char* from) : state_(iconv_open(to, from))
    {
        if (state_ == reinterpret_cast<iconv_t>(-1))
            std::abort();
    }
    ~Converter()
    {
        iconv_close(state_);
    }
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;

    // Ready for another text.
    void reset()
    {
        iconv(state_, nullptr, nullptr, nullptr, nullptr);
    }

    // Converts what is whole of `from`; moves it forward. The number of bytes made.
    size_t convert(char** from, size_t* left, char* to, size_t room)
    {
        char* out = to;
        iconv(state_, from, left, &out, &room);
        return static_cast<size_t>(out - to);
    }

  private:
    iconv_t state_;
};

// Hands the file's text to `take`, a part at a time.
template <class Take>
void read_converted(std::FILE* file, Converter& converter, Take take)
{
    char units[4096];
    char text[3 * sizeof units / 2];
    size_t kept = 0; // a piece of a character
    for (;;) {
        const size_t count = std::fread(units + kept, 1, sizeof units - kept, file);
        if (count == 0)
            return;
        char* from = units;
        size_t left = kept + count;
        take(text, converter.convert(&from, &left, text, sizeof text));
        memmove(units, from, left);
        kept = left;
    }
}

void write_converted(std::FILE* file, Converter& converter, const std::vector<std::string>& lines)
{
    for (const std::string& line : lines) {
        char units[4096];
        char* from = const_cast<char*>(line.data());
        size_t left = line.size();
        std::fwrite(units, 1, converter.convert(&from, &left, units, sizeof units), file);
    }
    std::fflush(file);
}

template <class Take>
void read_decoded(PSP_FILE_STREAM stream, Take take)
{
    char text[4096];
    while (psp_fgets(text, sizeof text, stream) != nullptr)
        take(text, strlen(text));
}

// The marks at the beginning are read and written by whoever opens a file, on both sides.
void read_utf16(Row& row, const char* tail)
{
    Streams streams;
    const std::vector<std::string> lines = lines_of(tail);
    const std::string text = joined(lines);
    streams.own_opener("w", PSP_FILE_MODE_UTF16)();
    put_lines(streams.own, lines);

    Converter converter("UTF-8", "UTF-16LE");
    const auto open_own = streams.own_opener("r");
    const auto open_other = [&] {
        streams.other.open(streams.file.name(), "r");
        std::fseek(streams.other.file, 2, SEEK_SET);
        converter.reset();
    };
    std::string got_own, got_other;
    open_own();
    read_decoded(streams.own.file,
                 [&](const char* part, size_t len) { got_own.append(part, len); });
    open_other();
    read_converted(streams.other.file, converter,
                   [&](const char* part, size_t len) { got_other.append(part, len); });
    if (got_own != text || got_other != text)
        return row.fail("the text was not read");

    size_t sum = 0;
    const auto count = [&](const char*, size_t len) { sum += len; };
    row.batch(1);
    row.divide_by(static_cast<double>(text.size()));
    row.psp([&](size_t) { read_decoded(streams.own.file, count); }, open_own);
    row.peer(
        "iconv and fread", [&](size_t) { read_converted(streams.other.file, converter, count); },
        0.8, open_other);
    row.run();
    benchmark::DoNotOptimize(sum);
}

void write_utf16(Row& row, const char* tail)
{
    Streams streams;
    const std::vector<std::string> lines = lines_of(tail);
    Converter converter("UTF-16LE", "UTF-8");
    const auto open_own = streams.own_opener("w", PSP_FILE_MODE_UTF16);
    const auto open_other = [&] {
        streams.other.open(streams.file.name(), "w");
        std::fwrite("\xFF\xFE", 1, 2, streams.other.file);
        converter.reset();
    };
    const auto write_own = [&] { put_lines(streams.own, lines); };
    const auto write_other = [&] { write_converted(streams.other.file, converter, lines); };
    if (streams.written(open_own, write_own) != streams.written(open_other, write_other))
        return row.fail("the two sides write different files");

    row.batch(1);
    row.divide_by(static_cast<double>(joined(lines).size()));
    row.psp([&](size_t) { write_own(); }, open_own);
    row.peer(
        "iconv and fwrite", [&](size_t) { write_other(); }, 0.8, open_other);
    row.run();
}

const Registered rows[] = {
    {"text", "read a character", "ns/byte", read_character},
    {"text", "read a line", "ns/byte", read_line},
    {"text", "put a string", "ns/byte", put_string},
    {"text", "print", "ns/byte", print},
    {"text", "read UTF-16, Latin", "ns/byte", [](Row& row) { read_utf16(row, LATIN_TAIL); }},
    {"text", "read UTF-16, mixed", "ns/byte", [](Row& row) { read_utf16(row, MIXED_TAIL); }},
    {"text", "write UTF-16, Latin", "ns/byte", [](Row& row) { write_utf16(row, LATIN_TAIL); }},
    {"text", "write UTF-16, mixed", "ns/byte", [](Row& row) { write_utf16(row, MIXED_TAIL); }},
};

} // namespace

} // namespace bench
