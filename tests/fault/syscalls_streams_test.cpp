// Text streams with every call of the system failing in every way.
//
// A stream tells nobody of a failed transfer: reading ends there, and of writing only what the
// cache still holds is tried again. So the bytes are what these tests look at.
#include "support/call_faults.h"
#include "support/text_test.h"

#include "psp/output.h"
#include "psp/stream.h"

#include <string>

#include <termios.h>

using namespace psptest;

namespace {

constexpr std::size_t window = 1024; // what the cache passes on at once

// Text of 3000 bytes without a newline: two windows and a part.
const std::string text = [] {
    std::string bytes;
    for (int i = 0; bytes.size() < 3000; i++)
        bytes += static_cast<char>('a' + i * 7 % 26);
    return bytes;
}();

termios modes;

struct Streams {
    Streams()
    {
        write_file(path, text);
        stream = psp_fopen(out.c_str(), "w", PSP_FILE_MODE_UTF8);
        input = psp_fopen(path.c_str(), "r", PSP_FILE_MODE_UTF8);
        Fault::replace(
            "fsync", +[](int) { return 0; }); // the disk is not what these tests wait for
        Fault::replace(
            "isatty", +[](int) { return 1; });
        Fault::replace(
            "tcgetattr", +[](int, termios* now) {
                *now = modes;
                return 0;
            });
        Fault::replace(
            "tcsetattr", +[](int, int, const termios* wanted) {
                modes = *wanted;
                return 0;
            });
        modes = {};
        modes.c_lflag = ECHO;
    }
    ~Streams()
    {
        psp_fclose(stream);
        psp_fclose(input);
        Fault::clear();
    }
    Streams(const Streams&) = delete;
    Streams& operator=(const Streams&) = delete;

    // Reads a file from a new stream until it ends: the count, or -1 when it does not open.
    long read_to_end()
    {
        got.clear();
        const PSP_FILE_STREAM reader = psp_fopen(path.c_str(), "r", PSP_FILE_MODE_UNKNOWN);
        const int error = errno;
        for (int c; reader != nullptr && (c = psp_fgetc(reader)) != -1;)
            got += static_cast<char>(c);
        psp_fclose(reader);
        errno = error;
        return reader != nullptr ? static_cast<long>(got.size()) : -1;
    }
    // One piece of a new stream, by psp_fgets or psp_fGetLine.
    long read_line(bool growing)
    {
        char piece[4000];
        char* line = piece;
        std::uint32_t len = sizeof piece;
        const PSP_FILE_STREAM reader = psp_fopen(path.c_str(), "r", PSP_FILE_MODE_UTF8);
        if (growing) {
            line = nullptr;
            len = 0;
            psp_fGetLine(reader, &line, &len, PSP_GLOBAL_TAG);
        }
        const bool there = growing ? line != nullptr && *line != '\0'
                                   : psp_fgets(piece, sizeof piece, reader) != nullptr;
        got = there ? line : "";
        if (growing)
            release(line, PSP_GLOBAL_TAG);
        psp_fclose(reader);
        return there ? static_cast<long>(got.size()) : -1;
    }
    // A new stream takes the text and is closed.
    long write_whole(const char* mode)
    {
        const PSP_FILE_STREAM writer = psp_fopen(fresh.c_str(), mode, PSP_FILE_MODE_UNKNOWN);
        const int error = errno;
        const long count = writer != nullptr ? psp_fputs(text.c_str(), writer) : -2;
        psp_fclose(writer);
        errno = error;
        return count;
    }

    TempDir dir;
    const std::string path = dir / "in";
    const std::string out = dir / "out";
    const std::string fresh = dir / "fresh";
    PSP_FILE_STREAM stream;
    PSP_FILE_STREAM input;
    std::string got;
    ZYN_BOOL_T flag = 7;
};

using StreamRow = Row<Streams>;

// ---- Models ----

// How far reading gets: the look at the byte-order mark makes the first read, and when it gets
// nothing the first character makes another one.
long read_until(const Failure& failure)
{
    int call = 0;
    if (failure.hits(++call) && failure.hits(++call))
        return 0;
    std::size_t count = window;
    while (count < text.size() && !failure.hits(++call))
        count = std::min(count + window, text.size());
    return static_cast<long>(count);
}

long line_until(const Failure& failure)
{
    const long count = read_until(failure);
    return count == 0 ? -1 : count;
}

// What a whole text comes to when some of its windows were refused: each is passed on once.
std::string written(const Failure* failure)
{
    std::string bytes;
    for (int call = 1; static_cast<std::size_t>(call - 1) * window < text.size(); call++)
        if (failure == nullptr || !failure->hits(call))
            bytes += text.substr(static_cast<std::size_t>(call - 1) * window, window);
    return bytes;
}

void read_so_far(Streams& w, const Failure* failure)
{
    const long count = failure != nullptr ? read_until(*failure) : 3000;
    EXPECT_EQ(w.got, text.substr(0, static_cast<std::size_t>(count)));
}

void read_all_of_it(Streams& w, const Failure*)
{
    EXPECT_EQ(w.got, text);
}

void fresh_written(Streams& w, const Failure* failure)
{
    EXPECT_EQ(read_file(w.fresh), written(failure));
}

void fresh_whole(Streams& w, const Failure*)
{
    EXPECT_EQ(read_file(w.fresh), text);
}

void fresh_twice(Streams& w, const Failure* failure)
{
    EXPECT_EQ(read_file(w.fresh), written(failure) + text);
}

void not_opened(Streams& w, const Failure* failure)
{
    EXPECT_EQ(file_exists(w.fresh), failure == nullptr);
}

// What was put stays in the cache until it is taken, so the next flush passes all of it on.
void flushed(Streams& w, const Failure* failure)
{
    EXPECT_EQ(read_file(w.out), failure != nullptr ? "" : "abcd");
}

void flushed_twice(Streams& w, const Failure*)
{
    EXPECT_EQ(read_file(w.out), "abcdabcd");
}

// clang-format off
const StreamRow rows[] = {
    // ---- Opening ----
    {"psp_fopen reading", "open",
     [](Streams& w) { return w.read_to_end(); }, 3000, always<-1>},
    {"psp_fopen reading", "fstat", // the length is unknown: reading goes on to the end
     [](Streams& w) { return w.read_to_end(); }, 3000, always<3000>, unsaid, read_all_of_it},
    {"psp_fopen reading", "close",
     [](Streams& w) { return w.read_to_end(); }, 3000, always<3000>, unsaid, read_all_of_it},
    {"psp_fopen writing", "open",
     [](Streams& w) { return w.write_whole("w"); }, 3000, always<-2>, kept, not_opened,
     fresh_whole},
    {"psp_fopen appending", "open",
     [](Streams& w) { return w.write_whole("a"); }, 3000, always<-2>, kept, not_opened},
    {"psp_fopen writing", "fstat",
     [](Streams& w) { return w.write_whole("w"); }, 3000, always<3000>, unsaid, fresh_whole},
    {"psp_fopen both ways", "open",
     [](Streams& w) -> long {
         const PSP_FILE_STREAM both = psp_fopen(w.path.c_str(), "r+", PSP_FILE_MODE_UTF8);
         const int error = errno;
         psp_fclose(both);
         errno = error;
         return both != nullptr;
     },
     1, always<0>, kept,
     [](Streams& w, const Failure*) { EXPECT_EQ(read_file(w.path), text); }},
    {"psp_fopenEx", "open",
     [](Streams& w) -> long {
         const PSP_FILE_STREAM opened =
             psp_fopenEx(w.path.c_str(), nullptr, PSP_FILE_MODE_UTF16, PSP_XFLAG_NOSYNC);
         const int error = errno;
         psp_fclose(opened);
         errno = error;
         return opened != nullptr;
     },
     1, always<0>},
    {"psp_fopenStd", "fstat",
     [](Streams&) -> long {
         const PSP_FILE_STREAM standard = psp_fopenStd("stdin");
         const bool is_stdin = psp_fIsStdIn(standard) == ZYN_TRUE;
         psp_fclose(standard);
         return is_stdin;
     },
     1, always<1>, unsaid},
    {"psp_fopenStdEx of a file", "open",
     [](Streams& w) -> long {
         const PSP_FILE_STREAM opened = psp_fopenStdEx(w.path.c_str(), 0);
         const int error = errno;
         psp_fclose(opened);
         errno = error;
         return opened != nullptr;
     },
     1, always<0>},

    // ---- Reading ----
    {"psp_fgetc", "read",
     [](Streams& w) { return w.read_to_end(); }, 3000, read_until, unsaid, read_so_far,
     read_all_of_it},
    {"psp_fgets", "read",
     [](Streams& w) { return w.read_line(false); }, 3000, line_until, unsaid, read_so_far,
     read_all_of_it},
    {"psp_fGetLine", "read",
     [](Streams& w) { return w.read_line(true); }, 3000, line_until, unsaid, read_so_far,
     read_all_of_it},
    // A read that failed is made anew by the next character: the end was none.
    {"psp_fgetc going on", "read",
     [](Streams& w) -> long {
         w.got.clear();
         const PSP_FILE_STREAM reader = psp_fopen(w.path.c_str(), "r", PSP_FILE_MODE_UTF8);
         for (int ends = 0; ends < 9;) {
             const int c = psp_fgetc(reader);
             if (c == -1)
                 ends++;
             else
                 w.got += static_cast<char>(c);
         }
         psp_fclose(reader);
         return static_cast<long>(w.got.size());
     },
     3000,
     [](const Failure& f) { return f.forever ? read_until(f) : 3000; }, unsaid,
     [](Streams& w, const Failure*) { EXPECT_EQ(w.got, text.substr(0, w.got.size())); }},

    // ---- Writing ----
    {"psp_fputs and psp_fclose", "write",
     [](Streams& w) { return w.write_whole("w"); }, 3000, always<3000>, unsaid, fresh_written,
     fresh_whole},
    {"psp_fputs appending", "write",
     [](Streams& w) { return w.write_whole("a"); }, 3000, always<3000>, unsaid, fresh_written,
     fresh_twice},
    {"psp_fclose", "close",
     [](Streams& w) { return w.write_whole("w"); }, 3000, always<3000>, unsaid, fresh_whole},
    {"psp_fputc", "write",
     [](Streams& w) -> long {
         const PSP_FILE_STREAM writer = psp_fopen(w.fresh.c_str(), "w", PSP_FILE_MODE_UTF8);
         long count = 0;
         for (const char ch : text)
             count += psp_fputc(ch, writer);
         psp_fclose(writer);
         return count;
     },
     3000, always<3000>, unsaid, fresh_written, fresh_whole},
    {"psp_fprintf", "write",
     [](Streams& w) -> long {
         const PSP_FILE_STREAM writer = psp_fopen(w.fresh.c_str(), "w", PSP_FILE_MODE_UTF8);
         const long count = psp_fprintf(writer, "%s", text.c_str());
         psp_fclose(writer);
         return count;
     },
     3000, always<3000>, unsaid, fresh_written, fresh_whole},
    {"psp_fopen with a mark", "write",
     [](Streams& w) -> long {
         const PSP_FILE_STREAM writer = psp_fopen(w.fresh.c_str(), "w", PSP_FILE_MODE_UTF16);
         const long taken = psp_fputc('A', writer);
         psp_fclose(writer);
         return taken;
     },
     1, always<1>, unsaid,
     [](Streams& w, const Failure* f) {
         EXPECT_EQ(read_file(w.fresh), f ? std::string() : std::string("\xFF\xFE" "A\0", 4));
     }},
    {"psp_fflush", "write",
     [](Streams& w) -> long {
         psp_fputs("abcd", w.stream);
         return psp_fflush(w.stream);
     },
     0, always<0>, unsaid, flushed, flushed_twice},
    {"psp_fsync", "write",
     [](Streams& w) -> long {
         psp_fputs("abcd", w.stream);
         return psp_fsync(w.stream);
     },
     0, always<0>, unsaid, flushed, flushed_twice},
    {"psp_fsync", "fsync",
     [](Streams& w) -> long {
         psp_fputs("abcd", w.stream);
         return psp_fsync(w.stream);
     },
     0, always<0>, unsaid,
     [](Streams& w, const Failure*) { EXPECT_EQ(read_file(w.out), "abcd"); }, flushed_twice},

    // ---- Terminals ----
    {"psp_fIsATTY", "isatty",
     [](Streams& w) -> long { return psp_fIsATTY(w.input, &w.flag); },
     sOKAY, always<sOKAY>, unsaid,
     [](Streams& w, const Failure* f) { EXPECT_EQ(w.flag, f ? ZYN_FALSE : ZYN_TRUE); }},
    {"psp_fSetEcho", "isatty",
     [](Streams& w) -> long { return psp_fSetEcho(w.input, ZYN_FALSE); },
     sOKAY, always<sOKAY>, unsaid,
     [](Streams&, const Failure* f) { EXPECT_EQ(modes.c_lflag, f ? tcflag_t{ECHO} : 0u); }},
    {"psp_fSetEcho", "tcgetattr",
     [](Streams& w) -> long { return psp_fSetEcho(w.input, ZYN_FALSE); },
     sOKAY, always<sOKAY>, unsaid},
    {"psp_fSetEcho", "tcsetattr",
     [](Streams& w) -> long { return psp_fSetEcho(w.input, ZYN_FALSE); },
     sOKAY, always<sOKAY>, unsaid,
     [](Streams&, const Failure* f) { EXPECT_EQ(modes.c_lflag, f ? tcflag_t{ECHO} : 0u); }},
};
// clang-format on

class StreamCalls : public FaultTest, public ::testing::WithParamInterface<StreamRow> {};

TEST_P(StreamCalls, FailAsToldAndNothingIsLost)
{
    drive(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Every, StreamCalls, ::testing::ValuesIn(rows), name_of_row<Streams>);

TEST(StreamCallsTable, HasARowForEveryCall)
{
    EXPECT_EQ(calls_in(rows), calls_for(in_streams));
}

} // namespace
