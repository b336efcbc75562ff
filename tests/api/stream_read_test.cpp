// Reading text streams on UTF-8 files: bytes, push-back, and lines of bounded and of any length.
#include "support/text_test.h"

#include "psp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace psptest;

namespace {

constexpr std::size_t cache_size = 1024;

class StreamRead : public PspTest {};
class StreamPushBack : public PspTest {};
class StreamGets : public PspTest {};
class StreamLine : public PspTest {};

// ---- Reading ----

TEST_F(StreamRead, GivesEveryByteAsASignedValue)
{
    const TempDir dir;
    std::string all(256, '\0');
    for (unsigned i = 0; i < 256; i++)
        all[i] = static_cast<char>(i);
    write_file(dir / "f", all + "!");
    Stream stream(dir / "f", "r");
    for (unsigned i = 0; i < 256; i++)
        EXPECT_EQ(psp_fgetc(stream), i < 128 ? static_cast<int>(i) : static_cast<int>(i) - 256);
    EXPECT_EQ(psp_fgetc(stream), '!'); // FF, which looks like the end, was not the end
    EXPECT_EQ(psp_fgetc(stream), -1);
    EXPECT_EQ(psp_fgetc(stream), -1);
}

TEST_F(StreamRead, OfFilesAroundTheCacheSizeIsWhole)
{
    const TempDir dir;
    for (const std::size_t size :
         {std::size_t{1}, cache_size - 1, cache_size, cache_size + 1, 2 * cache_size - 1,
          2 * cache_size, 2 * cache_size + 1, std::size_t{100000}}) {
        write_file(dir / "f", pattern(size));
        EXPECT_EQ(read_all(Stream(dir / "f", "r")), pattern(size)) << size;
    }
}

TEST_F(StreamRead, StopsAtTheLengthThatTheFileHadWhenItWasOpened)
{
    const TempDir dir;
    write_file(dir / "f", "abc");
    Stream stream(dir / "f", "r");
    EXPECT_EQ(read_all(stream), "abc");
    append_to(dir / "f", "def");
    EXPECT_EQ(psp_fgetc(stream), -1);
}

TEST_F(StreamRead, OfAFileThatWasEmptySeesWhatIsAddedLater)
{
    const TempDir dir;
    write_file(dir / "f", "");
    Stream stream(dir / "f", "r");
    EXPECT_EQ(psp_fgetc(stream), -1);
    append_to(dir / "f", "abc"); // a length of 0 counts as unknown
    EXPECT_EQ(read_all(stream), "abc");
    append_to(dir / "f", "d");
    EXPECT_EQ(read_all(stream), "d");
}

TEST_F(StreamRead, OfAPipeGoesOnToItsEnd)
{
    const TempDir dir;
    ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
    const int writer = open((dir / "pipe").c_str(), O_RDWR); // keeps the open from waiting
    ASSERT_GE(writer, 0);
    const std::string text = pattern(3000);
    ASSERT_EQ(write(writer, text.data(), 1), 1);
    Stream stream(dir / "pipe", "r");
    ASSERT_EQ(write(writer, text.data() + 1, text.size() - 1), 2999);
    close(writer);
    EXPECT_EQ(read_all(stream), text);
}

TEST_F(StreamRead, OfADirectoryIsItsEnd)
{
    const TempDir dir;
    Stream stream(dir.path(), "r"); // opens; every read fails
    EXPECT_EQ(psp_fgetc(stream), -1);
    char text[8] = "kept";
    EXPECT_EQ(psp_fgets(text, sizeof text, stream), nullptr);
}

TEST_F(StreamRead, OfAStreamThatOnlyWritesIsItsEnd)
{
    const TempDir dir;
    write_file(dir / "f", "abc");
    Stream stream(dir / "f", "a");
    EXPECT_EQ(psp_fgetc(stream), -1);
    psp_fputs("def", stream);
    EXPECT_EQ(psp_fgetc(stream), -1);
    stream.close();
    EXPECT_EQ(read_file(dir / "f"), "abcdef");
}

// ---- Push-back ----

TEST_F(StreamPushBack, ComesBackLastInFirstOutBeforeTheFile)
{
    const TempDir dir;
    write_file(dir / "f", "ab");
    Stream stream(dir / "f", "r");
    EXPECT_EQ(psp_fgetc(stream), 'a');
    EXPECT_EQ(psp_fungetc('1', stream), '1');
    EXPECT_EQ(psp_fungetc('2', stream), '2');
    EXPECT_EQ(psp_fgetc(stream), '2');
    EXPECT_EQ(psp_fungetc('3', stream), '3');
    EXPECT_EQ(read_values(stream, 4), (std::vector<int32_t>{'3', '1', 'b', -1}));
    EXPECT_EQ(psp_fungetc('4', stream), '4');
    EXPECT_EQ(read_values(stream, 2), (std::vector<int32_t>{'4', -1}));
}

TEST_F(StreamPushBack, KeepsTheWholeValue)
{
    const TempDir dir;
    write_file(dir / "f", "a");
    Stream stream(dir / "f", "r");
    for (const int32_t value : {0, 255, 256, 0x10FFFF, -2, INT32_MAX, INT32_MIN, -1}) {
        EXPECT_EQ(psp_fungetc(value, stream), value);
        EXPECT_EQ(psp_fgetc(stream), value);
    }
    EXPECT_EQ(psp_fgetc(stream), 'a');
}

TEST_F(StreamPushBack, TakesTwentyValues)
{
    const TempDir dir;
    write_file(dir / "f", "z");
    Stream stream(dir / "f", "r");
    for (int32_t i = 0; i < 20; i++)
        EXPECT_EQ(psp_fungetc(1000 + i, stream), 1000 + i);
    EXPECT_EQ(psp_fungetc('x', stream), -1);
    EXPECT_EQ(psp_fgetc(stream), 1019);
    EXPECT_EQ(psp_fungetc(7, stream), 7);
    EXPECT_EQ(psp_fungetc(8, stream), -1);
    EXPECT_EQ(psp_fgetc(stream), 7);
    for (int32_t i = 18; i >= 0; i--)
        EXPECT_EQ(psp_fgetc(stream), 1000 + i);
    EXPECT_EQ(psp_fgetc(stream), 'z');
}

TEST_F(StreamPushBack, WorksOnAnyStream)
{
    const TempDir dir;
    Stream stream(dir / "f", "w");
    EXPECT_EQ(psp_fungetc('q', stream), 'q');
    EXPECT_EQ(psp_fputs("text", stream), 4);
    EXPECT_EQ(read_values(stream, 2), (std::vector<int32_t>{'q', -1}));
    stream.close();
    EXPECT_EQ(read_file(dir / "f"), "text");
}

// ---- Lines of bounded length ----

TEST_F(StreamGets, KeepsTheNewline)
{
    const TempDir dir;
    write_file(dir / "f", "one\n\ntwo");
    Stream stream(dir / "f", "r");
    char line[10];
    EXPECT_EQ(psp_fgets(line, sizeof line, stream), line);
    EXPECT_STREQ(line, "one\n");
    EXPECT_EQ(psp_fgets(line, sizeof line, stream), line);
    EXPECT_STREQ(line, "\n");
    EXPECT_EQ(psp_fgets(line, sizeof line, stream), line);
    EXPECT_STREQ(line, "two");
    EXPECT_EQ(psp_fgets(line, sizeof line, stream), nullptr);
}

TEST_F(StreamGets, StopsWhenTheRoomIsFull)
{
    const TempDir dir;
    write_file(dir / "f", "abcdef\ng");
    Stream stream(dir / "f", "r");
    char line[8];
    const auto next = [&](int32_t room) {
        std::memset(line, '#', sizeof line);
        EXPECT_EQ(psp_fgets(line, room, stream), line);
        for (std::size_t i = static_cast<std::size_t>(room); i < sizeof line; i++)
            EXPECT_EQ(line[i], '#');
        return std::string(line);
    };
    EXPECT_EQ(next(4), "abc");
    EXPECT_EQ(next(2), "d");
    EXPECT_EQ(next(3), "ef");
    EXPECT_EQ(next(8), "\n");
    EXPECT_EQ(next(8), "g");
}

TEST_F(StreamGets, WithRoomForTheNulAloneReadsNothing)
{
    const TempDir dir;
    write_file(dir / "f", "a");
    Stream stream(dir / "f", "r");
    char line[4] = "###";
    EXPECT_EQ(psp_fgets(line, 1, stream), line);
    EXPECT_STREQ(line, "");
    EXPECT_EQ(line[1], '#');
    EXPECT_EQ(read_all(stream), "a");
    EXPECT_EQ(psp_fgets(line, 1, stream), line); // even at the end of the file
}

TEST_F(StreamGets, WithoutRoomIsRefused)
{
    const TempDir dir;
    write_file(dir / "f", "a");
    Stream stream(dir / "f", "r");
    char line[4] = "###";
    EXPECT_EQ(psp_fgets(line, 0, stream), nullptr);
    EXPECT_EQ(psp_fgets(line, -1, stream), nullptr);
    EXPECT_EQ(psp_fgets(line, INT32_MIN, stream), nullptr);
    EXPECT_EQ(psp_fgets(nullptr, 4, stream), nullptr);
    EXPECT_EQ(psp_fgets(nullptr, 1, stream), nullptr);
    EXPECT_STREQ(line, "###");
    EXPECT_EQ(read_all(stream), "a");
}

TEST_F(StreamGets, StoresTheLowByteOfWhatWasPushedBack)
{
    const TempDir dir;
    write_file(dir / "f", "b\n");
    Stream stream(dir / "f", "r");
    psp_fungetc(0x12341, stream);
    char line[8];
    EXPECT_EQ(psp_fgets(line, sizeof line, stream), line);
    EXPECT_STREQ(line, "Ab\n");
}

TEST_F(StreamGets, EndsAtAByteThatLooksLikeTheEnd)
{
    const TempDir dir;
    write_file(dir / "f", "a\xFF"
                          "b\n\xFF");
    Stream stream(dir / "f", "r");
    char line[8];
    EXPECT_EQ(psp_fgets(line, sizeof line, stream), line);
    EXPECT_STREQ(line, "a");
    EXPECT_EQ(psp_fgets(line, sizeof line, stream), line);
    EXPECT_STREQ(line, "b\n");
    EXPECT_EQ(psp_fgets(line, sizeof line, stream), nullptr);
}

TEST_F(StreamGets, KeepsNulBytesWithinTheLine)
{
    const TempDir dir;
    write_file(dir / "f", std::string("a\0b\n", 4));
    Stream stream(dir / "f", "r");
    char line[8];
    EXPECT_EQ(psp_fgets(line, sizeof line, stream), line);
    EXPECT_EQ(std::memcmp(line, "a\0b\n\0", 5), 0);
}

TEST_F(StreamGets, CutsRandomTextIntoLines)
{
    const TempDir dir;
    std::mt19937 random(20);
    std::string text;
    for (int i = 0; i < 20000; i++)
        text.push_back(random() % 30 == 0 ? '\n' : static_cast<char>('a' + random() % 26));
    write_file(dir / "f", text);
    Stream stream(dir / "f", "r");
    std::size_t at = 0;
    char line[64];
    while (at < text.size()) {
        const auto room = static_cast<int32_t>(2 + random() % 60);
        const std::size_t newline = std::min(text.find('\n', at), text.size() - 1);
        const std::string expected =
            text.substr(at, std::min(newline + 1 - at, static_cast<std::size_t>(room) - 1));
        ASSERT_EQ(psp_fgets(line, room, stream), line);
        ASSERT_EQ(line, expected);
        at += expected.size();
    }
    EXPECT_EQ(psp_fgets(line, 64, stream), nullptr);
}

// ---- Lines of any length ----

struct Line {
    char* buf = nullptr;
    uint32_t len = 0;
    PSP_MEMTAG tag = PSP_GLOBAL_TAG;

    ~Line()
    {
        psp_freeMem(buf, tag, __FILE__, __LINE__);
    }
    char* next(PSP_FILE_STREAM stream)
    {
        return psp_fGetLine(stream, &buf, &len, tag);
    }
};

TEST_F(StreamLine, ReadsNothingIntoABufferSaidToHaveTwoGigabytes)
{
    const TempDir dir;
    write_file(dir / "f", "a\n");
    Stream stream(dir / "f", "r");
    char small[4] = "xyz";
    char* buf = small;
    uint32_t len = 0x80000000;
    EXPECT_EQ(psp_fGetLine(stream, &buf, &len, PSP_GLOBAL_TAG), nullptr);
    EXPECT_EQ(buf, small);
    EXPECT_EQ(len, 0x80000000);
    EXPECT_STREQ(small, "xyz");
    EXPECT_EQ(read_all(stream), "a\n");
}

TEST_F(StreamLine, RefusesMissingArguments)
{
    const TempDir dir;
    write_file(dir / "f", "a\n");
    Stream stream(dir / "f", "r");
    char* buf = nullptr;
    uint32_t len = 0;
    EXPECT_EQ(psp_fGetLine(nullptr, &buf, &len, PSP_GLOBAL_TAG), nullptr);
    EXPECT_EQ(psp_fGetLine(stream, nullptr, &len, PSP_GLOBAL_TAG), nullptr);
    EXPECT_EQ(psp_fGetLine(stream, &buf, nullptr, PSP_GLOBAL_TAG), nullptr);
    EXPECT_EQ(buf, nullptr);
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(read_all(stream), "a\n");
}

TEST_F(StreamLine, StartsWithAHundredBytes)
{
    const TempDir dir;
    write_file(dir / "f", "short\nnext\n");
    Stream stream(dir / "f", "r");
    Line line;
    EXPECT_EQ(line.next(stream), line.buf);
    EXPECT_STREQ(line.buf, "short\n");
    EXPECT_EQ(line.len, 100u);
    char* const before = line.buf;
    EXPECT_EQ(line.next(stream), before); // the buffer is used again
    EXPECT_STREQ(line.buf, "next\n");
    EXPECT_EQ(line.len, 100u);
}

TEST_F(StreamLine, GrowsByAHundredBytes)
{
    const TempDir dir;
    // The size that a line of so many characters, its newline not counted, needs.
    constexpr std::pair<std::size_t, uint32_t> sizes[] = {
        {0, 100},   {98, 100},  {99, 200},  {100, 200},   {198, 200},   {199, 300},
        {250, 300}, {298, 300}, {299, 400}, {5000, 5100}, {1023, 1100}, {1024, 1100}};
    for (const auto& [chars, size] : sizes) {
        write_file(dir / "f", pattern(chars) + "\nnext");
        Stream stream(dir / "f", "r");
        Line line;
        ASSERT_NE(line.next(stream), nullptr);
        EXPECT_EQ(line.buf, pattern(chars) + "\n");
        EXPECT_EQ(line.len, size) << chars;
        EXPECT_EQ(read_all(stream), "next");
    }
}

TEST_F(StreamLine, WithoutNewlineAtTheEndGrowsOnceMore)
{
    const TempDir dir;
    constexpr std::pair<std::size_t, uint32_t> sizes[] = {{1, 200},   {98, 200},  {99, 200},
                                                          {100, 300}, {199, 300}, {200, 400}};
    for (const auto& [chars, size] : sizes) {
        write_file(dir / "f", pattern(chars));
        Stream stream(dir / "f", "r");
        Line line;
        ASSERT_NE(line.next(stream), nullptr);
        EXPECT_EQ(line.buf, pattern(chars));
        EXPECT_EQ(line.len, size) << chars;
        EXPECT_EQ(line.next(stream), nullptr);
        EXPECT_NE(line.buf, nullptr);
        EXPECT_EQ(line.len, size);
    }
}

TEST_F(StreamLine, AtTheEndLeavesABufferToTheCaller)
{
    const TempDir dir;
    write_file(dir / "f", "");
    Stream stream(dir / "f", "r");
    Line line;
    EXPECT_EQ(line.next(stream), nullptr);
    ASSERT_NE(line.buf, nullptr);
    EXPECT_EQ(line.len, 100u);
    for (int i = 0; i < 100; i++)
        EXPECT_EQ(line.buf[i], '\0');
}

TEST_F(StreamLine, UsesTheCallersBufferAndSize)
{
    const TempDir dir;
    write_file(dir / "f", pattern(30) + "\n" + pattern(500) + "\n");
    Stream stream(dir / "f", "r");
    Line line;
    line.buf = static_cast<char*>(psp_getMem(10, PSP_GLOBAL_TAG, 1, nullptr, __FILE__, __LINE__));
    line.len = 10;
    ASSERT_EQ(line.next(stream), line.buf);
    EXPECT_EQ(line.buf, pattern(30) + "\n");
    EXPECT_EQ(line.len, 110u);
    ASSERT_EQ(line.next(stream), line.buf);
    EXPECT_EQ(line.buf, pattern(500) + "\n");
    EXPECT_EQ(line.len, 510u);
}

TEST_F(StreamLine, WithABufferOfOneByteGrowsFirst)
{
    const TempDir dir;
    write_file(dir / "f", "abc\n");
    Stream stream(dir / "f", "r");
    Line line;
    line.buf = static_cast<char*>(psp_getMem(1, PSP_GLOBAL_TAG, 1, nullptr, __FILE__, __LINE__));
    line.len = 1;
    ASSERT_EQ(line.next(stream), line.buf);
    EXPECT_STREQ(line.buf, "abc\n");
    EXPECT_EQ(line.len, 101u);
}

TEST_F(StreamLine, WithASizeOfZeroCountsTheBufferAsAHundred)
{
    const TempDir dir;
    write_file(dir / "f", pattern(120) + "\n");
    Stream stream(dir / "f", "r");
    Line line;
    line.buf = static_cast<char*>(psp_getMem(100, PSP_GLOBAL_TAG, 1, nullptr, __FILE__, __LINE__));
    ASSERT_EQ(line.next(stream), line.buf);
    EXPECT_EQ(line.buf, pattern(120) + "\n");
    EXPECT_EQ(line.len, 200u);
}

TEST_F(StreamLine, TakesItsMemoryFromTheCallersTag)
{
    const TempDir dir;
    write_file(dir / "f", pattern(1000) + "\n");
    for (const PSP_ALLOCATOR_TYPE type : {LIST_ALLOCATOR, BLOCK_ALLOCATOR, LEGACY_ALLOCATOR}) {
        PSP_MEMTAG tag = nullptr;
        ASSERT_EQ(psp_createTagEx_rc(nullptr, 0, type, nullptr, nullptr, &tag, __FILE__, __LINE__),
                  sOKAY);
        Stream stream(dir / "f", "r");
        Line line;
        line.tag = tag;
        ASSERT_NE(line.next(stream), nullptr);
        EXPECT_EQ(line.buf, pattern(1000) + "\n");
        line.buf = nullptr; // it goes with its tag
        psp_freeTagMem(tag, ZYN_TRUE, __FILE__, __LINE__);
    }
}

// The beginning of a mark alone leaves a stream without a mode, which gives zeros without end.
TEST_F(StreamLine, EndsOnAStreamWithoutAMode)
{
    const TempDir dir;
    write_file(dir / "f", "\xEF");
    Stream stream(dir / "f", "r", PSP_FILE_MODE_UNKNOWN);
    EXPECT_EQ(psp_fgetc(stream), 0);
    Line line;
    EXPECT_EQ(line.next(stream), nullptr);
    EXPECT_EQ(psp_fungetc('x', stream), 'x');
    ASSERT_NE(line.next(stream), nullptr);
    EXPECT_STREQ(line.buf, "x") << "what was pushed back is a line";
    EXPECT_EQ(line.next(stream), nullptr);
}

TEST_F(StreamLine, ReadsRandomTextLineByLine)
{
    const TempDir dir;
    std::mt19937 random(21);
    std::vector<std::string> lines;
    std::string text;
    for (int i = 0; i < 300; i++) {
        lines.push_back(pattern(random() % 700) + "\n");
        text += lines.back();
    }
    write_file(dir / "f", text);
    Stream stream(dir / "f", "r");
    Line line;
    uint32_t size = 100;
    for (const std::string& expected : lines) {
        while (size < expected.size() + 1)
            size += 100;
        ASSERT_NE(line.next(stream), nullptr);
        ASSERT_EQ(line.buf, expected);
        ASSERT_EQ(line.len, size);
    }
    EXPECT_EQ(line.next(stream), nullptr);
}

} // namespace
