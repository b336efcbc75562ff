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

// ---- What a batch does with a stream ----

template <class Stream>
std::string read_by_characters(Stream& stream, size_t n)
{
    std::string text(n, '\0');
    for (char& byte : text)
        byte = static_cast<char>(stream.getc());
    return text;
}

template <class Stream>
std::string read_by_lines(Stream& stream)
{
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

void read_character(Row& row)
{
    const Server server;
    const TextFile file;
    const std::string text = joined(lines_of(ASCII_TAIL));
    file.fill(text);
    PspStream own;
    StdStream other;
    own.open(file.name(), "r");
    other.open(file.name(), "r");
    if (read_by_characters(own, text.size()) != text ||
        read_by_characters(other, text.size()) != text)
        return row.fail("the text was not read");

    const auto read = [](const auto& stream, size_t n) {
        int sum = 0;
        for (; n != 0; --n)
            sum += stream.getc();
        benchmark::DoNotOptimize(sum);
    };
    row.batch(text.size());
    row.psp([&](size_t n) { read(own, n); }, [&] { own.open(file.name(), "r"); });
    row.peer(
        "getc", [&](size_t n) { read(other, n); }, 0.8, [&] { other.open(file.name(), "r"); });
    row.run();
}

void read_line(Row& row)
{
    const Server server;
    const TextFile file;
    const std::string text = joined(lines_of(ASCII_TAIL));
    file.fill(text);
    PspStream own;
    StdStream other;
    own.open(file.name(), "r");
    other.open(file.name(), "r");
    if (read_by_lines(own) != text || read_by_lines(other) != text)
        return row.fail("the text was not read");

    const auto read = [](auto& stream, size_t n) {
        for (; n != 0; --n)
            benchmark::DoNotOptimize(stream.getline());
    };
    row.batch(LINES);
    row.divide_by(static_cast<double>(text.size()) / LINES);
    row.psp([&](size_t n) { read(own, n); }, [&] { own.open(file.name(), "r"); });
    row.peer(
        "getline", [&](size_t n) { read(other, n); }, 1.2, [&] { other.open(file.name(), "r"); });
    row.run();
}

// ---- Writing ----

void put_string(Row& row)
{
    const Server server;
    const TextFile file;
    const std::vector<std::string> lines = lines_of(ASCII_TAIL);
    const std::string text = joined(lines);
    PspStream own;
    StdStream other;
    const auto open_own = [&] { own.open(file.name(), "w"); };
    const auto open_other = [&] { other.open(file.name(), "w"); };
    open_own();
    put_lines(own, lines);
    const bool same = file.contents() == text;
    open_other();
    put_lines(other, lines);
    if (!same || file.contents() != text)
        return row.fail("the text was not written");

    row.batch(1);
    row.divide_by(static_cast<double>(text.size()));
    row.psp([&](size_t) { put_lines(own, lines); }, open_own);
    row.peer(
        "fputs", [&](size_t) { put_lines(other, lines); }, 1.6, open_other);
    row.run();
}

void print(Row& row)
{
    const Server server;
    const TextFile file;
    PspStream own;
    StdStream other;
    const auto open_own = [&] { own.open(file.name(), "w"); };
    const auto open_other = [&] { other.open(file.name(), "w"); };
    open_own();
    print_lines(own, LINES);
    const std::string text = file.contents();
    open_other();
    print_lines(other, LINES);
    if (file.contents() != text)
        return row.fail("the two sides print different texts");

    row.batch(LINES);
    row.divide_by(static_cast<double>(text.size()) / LINES);
    row.psp([&](size_t n) { print_lines(own, n); }, open_own);
    row.peer(
        "fprintf", [&](size_t n) { print_lines(other, n); }, 1.0, open_other);
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
void read_converted(std::FILE* file, Take take)
{
    Converter converter("UTF-8", "UTF-16LE");
    char units[4096];
    char text[3 * sizeof units / 2];
    size_t kept = 0; // a piece of a character
    std::fseek(file, 2, SEEK_SET);
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

void write_converted(std::FILE* file, const std::vector<std::string>& lines)
{
    Converter converter("UTF-16LE", "UTF-8");
    std::fwrite("\xFF\xFE", 1, 2, file);
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

void read_utf16(Row& row, const char* tail)
{
    const Server server;
    const TextFile file;
    const std::vector<std::string> lines = lines_of(tail);
    const std::string text = joined(lines);
    PspStream own;
    StdStream other;
    own.open(file.name(), "w", PSP_FILE_MODE_UTF16);
    put_lines(own, lines);

    std::string got_own, got_other;
    own.open(file.name(), "r");
    read_decoded(own.file, [&](const char* part, size_t len) { got_own.append(part, len); });
    other.open(file.name(), "r");
    read_converted(other.file, [&](const char* part, size_t len) { got_other.append(part, len); });
    if (got_own != text || got_other != text)
        return row.fail("the text was not read");

    size_t sum = 0;
    const auto count = [&](const char*, size_t len) { sum += len; };
    row.batch(1);
    row.divide_by(static_cast<double>(text.size()));
    row.psp([&](size_t) { read_decoded(own.file, count); }, [&] { own.open(file.name(), "r"); });
    row.peer(
        "iconv and fread", [&](size_t) { read_converted(other.file, count); }, 0.8,
        [&] { other.open(file.name(), "r"); });
    row.run();
    benchmark::DoNotOptimize(sum);
}

void write_utf16(Row& row, const char* tail)
{
    const Server server;
    const TextFile file;
    const std::vector<std::string> lines = lines_of(tail);
    PspStream own;
    StdStream other;
    const auto open_own = [&] { own.open(file.name(), "w", PSP_FILE_MODE_UTF16); };
    const auto open_other = [&] { other.open(file.name(), "w"); };
    open_own();
    put_lines(own, lines);
    const std::string text = file.contents();
    open_other();
    write_converted(other.file, lines);
    if (file.contents() != text)
        return row.fail("the two sides write different files");

    row.batch(1);
    row.divide_by(static_cast<double>(joined(lines).size()));
    row.psp([&](size_t) { put_lines(own, lines); }, open_own);
    row.peer(
        "iconv and fwrite", [&](size_t) { write_converted(other.file, lines); }, 0.8, open_other);
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
