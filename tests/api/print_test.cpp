// Formatted printing: to a stream, and to the top of the two standard stacks.
#include "support/text_test.h"

#include "psp.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>

using namespace psptest;

namespace {

class Printing : public PspTest {};
class StreamPrintf : public PspTest {};

// The same list in two calls: the functions leave it where it was.
PSP_PRINTF(2, 3)
int32_t print_twice(PSP_FILE_STREAM stream, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int32_t written = psp_vfprintf(stream, format, args) + psp_vfprintf(stream, format, args);
    va_end(args);
    return written;
}

PSP_PRINTF(1, 2)
int32_t print_twice_to_stdout(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int32_t written = psp_printfV(format, args) + psp_printfV(format, args);
    va_end(args);
    return written;
}

// A format that the engine refuses, kept from the compiler's own check.
const char* too_wide()
{
    static const char* volatile format = "seen%99999999999d";
    return format;
}

int32_t print_bad_format(PSP_FILE_STREAM stream)
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    return psp_fprintf(stream, too_wide(), 1);
#pragma GCC diagnostic pop
}

int32_t printf_bad_format()
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    return psp_printf(too_wide(), 1);
#pragma GCC diagnostic pop
}

// ---- Printing to the standard stacks ----

TEST_F(Printing, GoesToTheStandardOutputWhenFlushed)
{
    CapturedFd captured(1);
    CapturedFd errors(2);
    EXPECT_EQ(psp_printf("%s %d\n", "text", 42), 8);
    EXPECT_EQ(captured.text(), "");
    psp_flushErr();
    EXPECT_EQ(captured.text(), "");
    psp_flush();
    EXPECT_EQ(captured.finish(), "text 42\n");
    EXPECT_EQ(errors.finish(), "");
}

TEST_F(Printing, ToTheStandardErrorGoesThereWhenFlushed)
{
    CapturedFd captured(1);
    CapturedFd errors(2);
    EXPECT_EQ(print_err("%s %d\n", "text", 42), 8);
    EXPECT_EQ(errors.text(), "");
    psp_flush();
    EXPECT_EQ(errors.text(), "");
    psp_flushErr();
    EXPECT_EQ(errors.finish(), "text 42\n");
    EXPECT_EQ(captured.finish(), "");
}

TEST_F(Printing, OfNothingGivesZero)
{
    CapturedFd captured(1);
    EXPECT_EQ(psp_printf("%s", ""), 0);
    EXPECT_EQ(print_err("%s", ""), 0);
    psp_flush();
    EXPECT_EQ(captured.finish(), "");
}

TEST_F(Printing, WithAFormatThatFailsGivesMinusOneAndPrintsNothing)
{
    CapturedFd captured(1);
    EXPECT_EQ(printf_bad_format(), -1);
    psp_flush();
    EXPECT_EQ(captured.finish(), "");
}

TEST_F(Printing, IntoTheVoidDoesNotLookAtTheFormat)
{
    ASSERT_EQ(psp_stdout_openEx(nullptr, nullptr), sOKAY);
    EXPECT_EQ(printf_bad_format(), 0);
    psp_stdout_closeEx(nullptr);
}

TEST_F(Printing, LeavesTheArgumentListAlone)
{
    CapturedFd captured(1);
    EXPECT_EQ(print_twice_to_stdout("%d,%s;", 1, "b"), 8);
    psp_flush();
    EXPECT_EQ(captured.finish(), "1,b;1,b;");
}

TEST_F(Printing, OfMoreThanACacheIsWhole)
{
    CapturedFd captured(1);
    EXPECT_EQ(psp_printf("%5000d", 7), 5000);
    psp_flush();
    EXPECT_EQ(captured.finish(), std::string(4999, ' ') + "7");
}

// ---- Formatted output to a stream ----

TEST_F(StreamPrintf, GivesTheNumberOfBytes)
{
    const TempDir dir;
    Stream stream(dir / "f", "w");
    EXPECT_EQ(psp_fprintf(stream, "%s", ""), 0);
    EXPECT_EQ(psp_fprintf(stream, "a"), 1);
    EXPECT_EQ(psp_fprintf(stream, "%05d|%-4s|", 42, "x"), 11);
    EXPECT_EQ(psp_fprintf(stream, "%3000s", "y"), 3000);
    EXPECT_EQ(psp_fprintf(stream, "%s", "short again"), 11);
    stream.close();
    EXPECT_EQ(read_file(dir / "f"), "a00042|x   |" + std::string(2999, ' ') + "yshort again");
}

TEST_F(StreamPrintf, ToNoStreamGivesMinusOne)
{
    EXPECT_EQ(psp_fprintf(nullptr, "%d", 7), -1);
}

TEST_F(StreamPrintf, LeavesTheArgumentListAlone)
{
    const TempDir dir;
    Stream stream(dir / "f", "w");
    EXPECT_EQ(print_twice(stream, "%d-%s-%c.", 7, "eight", '9'), 20);
    stream.close();
    EXPECT_EQ(read_file(dir / "f"), "7-eight-9.7-eight-9.");
}

TEST_F(StreamPrintf, EndsAtANulWithinTheText)
{
    const TempDir dir;
    Stream stream(dir / "f", "w");
    EXPECT_EQ(psp_fprintf(stream, "ab%ccd", 0), 2);
    EXPECT_EQ(psp_fprintf(stream, "%ccd", 0), 0);
    EXPECT_EQ(psp_fprintf(stream, "ef"), 2);
    stream.close();
    EXPECT_EQ(read_file(dir / "f"), "abef");
}

TEST_F(StreamPrintf, WithAFormatThatFailsWritesNothing)
{
    const TempDir dir;
    Stream stream(dir / "f", "w");
    EXPECT_EQ(print_bad_format(stream), -1);
    EXPECT_EQ(psp_fprintf(stream, "%100d", 1), 100);
    EXPECT_EQ(print_bad_format(stream), -1); // with room for it, too
    EXPECT_EQ(psp_fprintf(stream, "ok"), 2);
    stream.close();
    EXPECT_EQ(read_file(dir / "f"), std::string(99, ' ') + "1ok");
}

TEST_F(StreamPrintf, OfATextThatItsOwnFormatEmptiesWritesNothing)
{
    const TempDir dir;
    Stream stream(dir / "f", "w");
    int words[65]; // 256 characters: measured, their number takes the place of the first four
    char* text = reinterpret_cast<char*>(words);
    std::memset(text, 'x', sizeof words);
    text[256] = '\0';
    EXPECT_EQ(psp_fprintf(stream, "%s%n", text, words), 0);
    EXPECT_EQ(psp_fprintf(stream, "ok"), 2);
    stream.close();
    EXPECT_EQ(read_file(dir / "f"), "ok");
}

TEST_F(StreamPrintf, OfRandomLengthsIsWhole)
{
    const TempDir dir;
    Stream stream(dir / "f", "w");
    std::mt19937 random(53);
    std::string expected;
    for (int i = 0; i < 300; i++) {
        const std::string text(random() % 400, static_cast<char>('a' + i % 26));
        ASSERT_EQ(psp_fprintf(stream, "%s", text.c_str()), static_cast<int32_t>(text.size()));
        expected += text;
    }
    stream.close();
    EXPECT_EQ(read_file(dir / "f"), expected);
}

TEST_F(StreamPrintf, MixesWithBytesAndStrings)
{
    const TempDir dir;
    Stream stream(dir / "f", "w", PSP_FILE_MODE_UTF16);
    psp_fputc(0xC3, stream);
    EXPECT_EQ(psp_fprintf(stream, "%c%s", 0xA9, "b"), 2); // goes on with the character begun
    psp_fputs("c", stream);
    stream.close();
    EXPECT_EQ(read_file(dir / "f"), std::string("\xFF\xFE\xE9\0b\0c\0", 8));
}

} // namespace
