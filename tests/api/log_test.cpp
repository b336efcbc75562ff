// Logging: what each function puts on the console and into the log, the time, messages in pieces,
// and the process that runs in the background or has not started the library.
#include "support/text_test.h"

#include "psp.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include <unistd.h>

using namespace psptest;

namespace {

PSP_PRINTF(3, 4)
int32_t log_err_ex(PSP_LOG_CTX* ctx, ZYN_BOOL_T logTime, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int32_t written = psp_log_errV_Ex(ctx, logTime, format, args);
    va_end(args);
    return written;
}

// A format that the engine refuses, kept from the compiler's own check.
const char* too_wide()
{
    static const char* volatile format = "seen%99999999999d";
    return format;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
int32_t log_bad_format()
{
    return psp_log(too_wide(), 1) | psp_log_with_time(too_wide(), 1) | psp_log_err(too_wide(), 1);
}

void chunk_bad_format(PSP_LOG_CHUNK chunk)
{
    psp_log_chunk(chunk, too_wide(), 1);
}

void end_chunk_bad_format(PSP_LOG_CHUNK chunk)
{
    psp_log_chunk_end(chunk, too_wide(), 1);
}
#pragma GCC diagnostic pop

// With both consoles captured and a log file open.
class Log : public PspTest {
  protected:
    void SetUp() override
    {
        PspTest::SetUp();
        ASSERT_EQ(psp_log_openEx(nullptr, path_.c_str()), sOKAY);
    }
    void TearDown() override
    {
        psp_log_closeEx(nullptr);
        PspTest::TearDown();
    }

    // What was logged since the last call.
    std::string logged()
    {
        const std::string log = read_file(path_);
        const std::string part = log.substr(taken_);
        taken_ = log.size();
        return part;
    }

    const TempDir dir_;
    const std::string path_ = dir_ / "log";
    const TimeSpan now_{};
    std::size_t taken_ = 0;
};

class LogChunk : public Log {};
class LogBackground : public Log {};
class LogBeforeStart : public RawTest {};

constexpr auto timed_length = static_cast<int32_t>(time_prefix_length);

// ---- The functions ----

TEST_F(Log, ShowsTheBareMessageAndLogsItWithTheTime)
{
    CapturedFd captured(1);
    CapturedFd errors(2);
    EXPECT_EQ(psp_log("%s %d\n", "message", 7), 10);
    EXPECT_EQ(captured.text(), "message 7\n"); // flushed already, both
    EXPECT_TRUE(now_.covers(logged(), "message 7\n"));
    EXPECT_EQ(captured.finish(), "message 7\n");
    EXPECT_EQ(errors.finish(), "");
}

TEST_F(Log, WithTimeShowsBothAlike)
{
    CapturedFd captured(1);
    CapturedFd errors(2);
    EXPECT_EQ(psp_log_with_time("message %d\n", 7), timed_length + 10);
    const std::string shown = captured.finish();
    EXPECT_TRUE(now_.covers(shown, "message 7\n"));
    EXPECT_TRUE(now_.covers(logged(), "message 7\n"));
    EXPECT_EQ(errors.finish(), "");
}

TEST_F(Log, OfErrorsShowsThemOnTheStandardError)
{
    CapturedFd captured(1);
    CapturedFd errors(2);
    EXPECT_EQ(psp_log_err("message %d\n", 7), 10);
    EXPECT_EQ(errors.text(), "message 7\n");
    EXPECT_TRUE(now_.covers(logged(), "message 7\n"));
    EXPECT_EQ(log_err_ex(nullptr, ZYN_FALSE, "%s", "bare"), 4);
    EXPECT_EQ(errors.text(), "message 7\nbare");
    EXPECT_TRUE(now_.covers(logged(), "bare"));
    EXPECT_EQ(log_err_ex(nullptr, ZYN_TRUE, "%s", "timed"), timed_length + 5);
    EXPECT_TRUE(now_.covers(logged(), "timed"));
    EXPECT_TRUE(now_.covers(errors.finish().substr(14), "timed"));
    EXPECT_EQ(captured.finish(), "");
}

TEST_F(Log, WithoutASetUsesTheProcesss)
{
    CapturedFd captured(1);
    EXPECT_EQ(psp_logEx(nullptr, "%d", 1), 1);
    EXPECT_EQ(captured.text(), "1");
    EXPECT_TRUE(now_.covers(logged(), "1"));
    EXPECT_EQ(psp_logEx_with_time(nullptr, "%d", 2), timed_length + 1);
    EXPECT_TRUE(now_.covers(captured.finish().substr(1), "2"));
    EXPECT_TRUE(now_.covers(logged(), "2"));
}

TEST_F(Log, WithASetLeavesTheProcesssAlone)
{
    PSP_LOG_CTX ctx;
    ASSERT_EQ(psp_log_initCtx(&ctx), sOKAY);
    const std::string log = dir_ / "set";
    ASSERT_EQ(psp_log_openEx(&ctx, log.c_str()), sOKAY);
    CapturedFd captured(1);
    CapturedFd errors(2);
    EXPECT_EQ(psp_logEx_with_time(&ctx, "1\n"), timed_length + 2);
    EXPECT_EQ(psp_logEx(&ctx, "2\n"), 2);
    EXPECT_EQ(log_err_ex(&ctx, ZYN_TRUE, "3\n"), timed_length + 2);
    EXPECT_EQ(log_err_ex(&ctx, ZYN_FALSE, "4\n"), 2);
    const std::string shown = captured.finish();
    EXPECT_TRUE(now_.covers(shown.substr(0, time_prefix_length + 2), "1\n"));
    EXPECT_EQ(shown.substr(time_prefix_length + 2), "2\n");
    const std::string failed = errors.finish();
    EXPECT_TRUE(now_.covers(failed.substr(0, time_prefix_length + 2), "3\n"));
    EXPECT_EQ(failed.substr(time_prefix_length + 2), "4\n");
    const std::string text = read_file(log);
    ASSERT_EQ(text.size(), 4 * (time_prefix_length + 2));
    for (std::size_t i = 0; i < 4; i++)
        EXPECT_TRUE(now_.covers(text.substr(i * (time_prefix_length + 2), time_prefix_length + 2),
                                std::to_string(i + 1) + "\n"));
    EXPECT_EQ(logged(), "");
    psp_log_termCtx(&ctx);
}

TEST_F(Log, CountsTheConsoleOnly)
{
    CapturedFd captured(1);
    ASSERT_EQ(psp_stdout_openEx(nullptr, nullptr), sOKAY);
    EXPECT_EQ(psp_log("text"), 0);
    EXPECT_EQ(psp_log_with_time("text"), 0);
    psp_stdout_closeEx(nullptr);
    EXPECT_EQ(logged().size(), 2 * (time_prefix_length + 4));
    psp_log_closeEx(nullptr);
    EXPECT_EQ(psp_log("text"), 4);
    EXPECT_EQ(captured.finish(), "text");
    ASSERT_EQ(psp_log_openEx(nullptr, path_.c_str()), sOKAY);
}

TEST_F(Log, GoesWhereTheStandardOutputLeads)
{
    CapturedFd captured(1);
    const std::string out = dir_ / "out";
    ASSERT_EQ(psp_stdout_openEx(nullptr, out.c_str()), sOKAY);
    EXPECT_EQ(psp_log("text"), 4);
    EXPECT_EQ(read_file(out), "text"); // flushed
    psp_stdout_closeEx(nullptr);
    EXPECT_EQ(captured.finish(), "");
}

TEST_F(Log, FlushesWhatWasPrintedBefore)
{
    CapturedFd captured(1);
    psp_printf("1 ");
    EXPECT_EQ(captured.text(), "");
    psp_log("2");
    EXPECT_EQ(captured.finish(), "1 2");
}

TEST_F(Log, OfAnEmptyMessageIsATimeAlone)
{
    CapturedFd captured(1);
    EXPECT_EQ(psp_log("%s", ""), 0);
    EXPECT_EQ(captured.finish(), "");
    EXPECT_TRUE(now_.covers(logged(), ""));
}

TEST_F(Log, EndsAMessageAtItsFirstNul)
{
    CapturedFd captured(1);
    EXPECT_EQ(psp_log("ab%ccd", 0), 2);
    EXPECT_EQ(captured.finish(), "ab");
    EXPECT_TRUE(now_.covers(logged(), "ab"));
}

TEST_F(Log, DoesNotInterpretTheMessageAgain)
{
    CapturedFd captured(1);
    EXPECT_EQ(psp_log("%s", "100%d %n %s"), 11);
    EXPECT_EQ(captured.finish(), "100%d %n %s");
    EXPECT_TRUE(now_.covers(logged(), "100%d %n %s"));
}

TEST_F(Log, OfAFormatThatFailsIsNothing)
{
    CapturedFd captured(1);
    CapturedFd errors(2);
    EXPECT_EQ(log_bad_format(), 0);
    EXPECT_EQ(captured.finish(), "");
    EXPECT_EQ(errors.finish(), "");
    EXPECT_EQ(logged(), "");
}

TEST_F(Log, OfALongMessageIsWhole)
{
    CapturedFd captured(1);
    std::string shown;
    for (const int width : {510, 511, 512, 513, 1000, 1001, 1024, 1025, 5000, 100000}) {
        EXPECT_EQ(psp_log("%*d\n", width - 1, 1), width);
        const std::string message = std::string(static_cast<std::size_t>(width) - 2, ' ') + "1\n";
        EXPECT_TRUE(now_.covers(logged(), message)) << width;
        shown += message;
    }
    EXPECT_EQ(captured.finish(), shown);
}

TEST_F(Log, KeepsBytesThatAreNoText)
{
    CapturedFd captured(1);
    EXPECT_EQ(psp_log("\x80\xC3\xFF"), 3);
    EXPECT_EQ(captured.finish(), "\x80\xC3\xFF");
    EXPECT_TRUE(now_.covers(logged(), "\x80\xC3\xFF"));
}

TEST_F(Log, WritesTheTimeInItsOneForm)
{
    CapturedFd captured(1);
    psp_log("x");
    std::string line = logged();
    for (char& byte : line)
        byte = byte >= '0' && byte <= '9' ? '9' : byte;
    EXPECT_EQ(line, "[9999-99-99 99:99:99]  x");
}

TEST_F(Log, UsesTheLocalTime)
{
    const int status = run_in_child([&] {
        const auto hour_in = [&](const char* zone) {
            setenv("TZ", zone, 1);
            tzset();
            CapturedFd captured(1);
            const time_t before = std::time(nullptr);
            psp_log("x");
            const time_t after = std::time(nullptr);
            const std::string line = logged();
            EXPECT_TRUE(line == time_text(before) + "  x" || line == time_text(after) + "  x");
            return line.substr(12, 2);
        };
        EXPECT_NE(hour_in("AAA-5"), hour_in("BBB+5"));
        return 0;
    });
    EXPECT_EQ(status, 0);
}

TEST_F(Log, LeavesNoMemoryBehind)
{
    CapturedFd captured(1);
    psp_log("%5000d", 1);
    PSP_TAG_MEM_INFO before;
    psp_getTagMemInfo(PSP_THREAD_TAG, &before);
    for (int i = 0; i < 100; i++)
        psp_log("%*d", 100 * i, 1);
    PSP_TAG_MEM_INFO after;
    psp_getTagMemInfo(PSP_THREAD_TAG, &after);
    EXPECT_EQ(after.used.current, before.used.current);
}

TEST_F(Log, OfMoreThanTheMemoryLimitIsNothing)
{
    CapturedFd captured(1);
    ASSERT_EQ(psp_setMemLimit(nullptr, 4195328), sOKAY);
    EXPECT_EQ(psp_log("%5000000d", 1), 0);
    PSP_LOG_CHUNK chunk = psp_log_chunk_init();
    psp_log_chunk(chunk, "one");
    psp_log_chunk(chunk, "%5000000d", 1);
    psp_log_chunk_end(chunk, "two");
    EXPECT_EQ(psp_setMemLimit(nullptr, 0), sOKAY);
    EXPECT_EQ(captured.finish(), "onetwo");
    EXPECT_TRUE(now_.covers(logged(), "onetwo"));
}

// ---- Messages in pieces ----

TEST_F(LogChunk, ReachesEachDestinationAsOneMessage)
{
    CapturedFd captured(1);
    PSP_LOG_CHUNK chunk = psp_log_chunk_init();
    ASSERT_NE(chunk, nullptr);
    psp_log_chunk(chunk, "%s", "one ");
    psp_log_chunk(chunk, "%d ", 2);
    EXPECT_EQ(captured.text(), "");
    EXPECT_EQ(logged(), "");
    psp_log("between\n");
    EXPECT_TRUE(now_.covers(logged(), "between\n"));
    psp_log_chunk_end(chunk, "%s\n", "three");
    EXPECT_EQ(captured.finish(), "between\none 2 three\n");
    EXPECT_TRUE(now_.covers(logged(), "one 2 three\n"));
}

TEST_F(LogChunk, EndsWithoutAPieceOfItsOwn)
{
    CapturedFd captured(1);
    PSP_LOG_CHUNK chunk = psp_log_chunk_init();
    psp_log_chunk(chunk, "text");
    psp_log_chunk_end(chunk, nullptr);
    EXPECT_EQ(captured.finish(), "text");
    EXPECT_TRUE(now_.covers(logged(), "text"));
}

TEST_F(LogChunk, OfTheEndAloneIsAMessage)
{
    CapturedFd captured(1);
    psp_log_chunk_end(psp_log_chunk_init(), "%d", 9);
    EXPECT_EQ(captured.finish(), "9");
    EXPECT_TRUE(now_.covers(logged(), "9"));
}

TEST_F(LogChunk, WithoutPiecesIsNoMessage)
{
    CapturedFd captured(1);
    psp_log_chunk_end(psp_log_chunk_init(), nullptr);
    PSP_LOG_CHUNK chunk = psp_log_chunk_init();
    psp_log_chunk(chunk, nullptr);
    chunk_bad_format(chunk);
    end_chunk_bad_format(chunk);
    EXPECT_EQ(captured.finish(), "");
    EXPECT_EQ(logged(), "");
}

TEST_F(LogChunk, OfEmptyPiecesIsAnEmptyMessage)
{
    CapturedFd captured(1);
    PSP_LOG_CHUNK chunk = psp_log_chunk_init();
    psp_log_chunk(chunk, "%s", "");
    psp_log_chunk_end(chunk, nullptr);
    EXPECT_EQ(captured.finish(), "");
    EXPECT_TRUE(now_.covers(logged(), ""));
}

TEST_F(LogChunk, DropsAPieceWhoseFormatFails)
{
    CapturedFd captured(1);
    PSP_LOG_CHUNK chunk = psp_log_chunk_init();
    psp_log_chunk(chunk, "one");
    chunk_bad_format(chunk);
    psp_log_chunk(chunk, "two");
    end_chunk_bad_format(chunk);
    EXPECT_EQ(captured.finish(), "onetwo");
    EXPECT_TRUE(now_.covers(logged(), "onetwo"));
}

TEST_F(LogChunk, IgnoresAMissingChunk)
{
    CapturedFd captured(1);
    psp_log_chunk(nullptr, "text");
    psp_log_chunk(nullptr, nullptr);
    psp_log_chunk_end(nullptr, "text");
    psp_log_chunk_end(nullptr, nullptr);
    EXPECT_EQ(captured.finish(), "");
    EXPECT_EQ(logged(), "");
}

TEST_F(LogChunk, GrowsAndGivesItsMemoryBack)
{
    PSP_TAG_MEM_INFO before;
    psp_getTagMemInfo(PSP_GLOBAL_TAG, &before);
    CapturedFd captured(1);
    PSP_LOG_CHUNK chunk = psp_log_chunk_init();
    std::string expected;
    for (int i = 0; i < 500; i++) {
        psp_log_chunk(chunk, "%0*d;", i % 50 + 1, i);
        char piece[64];
        expected.append(piece, static_cast<std::size_t>(
                                   std::snprintf(piece, sizeof piece, "%0*d;", i % 50 + 1, i)));
    }
    psp_log_chunk_end(chunk, nullptr);
    EXPECT_EQ(captured.finish(), expected);
    EXPECT_TRUE(now_.covers(logged(), expected));
    PSP_TAG_MEM_INFO after;
    psp_getTagMemInfo(PSP_GLOBAL_TAG, &after);
    EXPECT_EQ(after.used.current, before.used.current);
}

TEST_F(LogChunk, GoesWhereTheStandardOutputLeadsAtItsEnd)
{
    CapturedFd captured(1);
    PSP_LOG_CHUNK chunk = psp_log_chunk_init();
    psp_log_chunk(chunk, "text");
    ASSERT_EQ(psp_stdout_openEx(nullptr, nullptr), sOKAY);
    psp_log_chunk_end(chunk, nullptr);
    psp_stdout_closeEx(nullptr);
    EXPECT_EQ(captured.finish(), "");
    EXPECT_TRUE(now_.covers(logged(), "text"));
}

TEST_F(LogChunk, SeveralAtATimeDoNotMix)
{
    CapturedFd captured(1);
    PSP_LOG_CHUNK one = psp_log_chunk_init();
    PSP_LOG_CHUNK two = psp_log_chunk_init();
    psp_log_chunk(one, "a");
    psp_log_chunk(two, "b");
    psp_log_chunk(one, "c");
    psp_log_chunk_end(two, "d\n");
    psp_log_chunk_end(one, "e\n");
    EXPECT_EQ(captured.finish(), "bd\nace\n");
}

// ---- In the background ----

TEST_F(LogBackground, OnlyTheLogIsWritten)
{
    const int status = run_in_child([&] {
        CapturedFd captured(1);
        CapturedFd errors(2);
        psp_background = 1;
        EXPECT_EQ(psp_log("1"), 0);
        EXPECT_TRUE(now_.covers(logged(), "1"));
        EXPECT_EQ(psp_log_with_time("2"), 0);
        EXPECT_TRUE(now_.covers(logged(), "2"));
        EXPECT_EQ(psp_log_err("3"), 0);
        EXPECT_TRUE(now_.covers(logged(), "3"));
        EXPECT_EQ(log_err_ex(nullptr, ZYN_TRUE, "4"), 0);
        EXPECT_TRUE(now_.covers(logged(), "4"));
        EXPECT_EQ(psp_logEx(nullptr, "5"), 0);
        EXPECT_TRUE(now_.covers(logged(), "5"));
        psp_log_chunk_end(psp_log_chunk_init(), "6");
        EXPECT_TRUE(now_.covers(logged(), "6"));
        EXPECT_EQ(captured.text(), "");
        EXPECT_EQ(errors.finish(), "");
        EXPECT_EQ(psp_printf("printed"), 7); // printing goes on
        psp_flush();
        EXPECT_EQ(captured.finish(), "printed");
        return 0;
    });
    EXPECT_EQ(status, 0);
}

// ---- Before start and after stop ----

TEST_F(LogBeforeStart, TheCLibraryPrints)
{
    CapturedFd captured(1);
    CapturedFd errors(2);
    EXPECT_EQ(psp_log("%d\n", 1), 2);
    EXPECT_EQ(psp_log_with_time("%s\n", "22"), 3);
    EXPECT_EQ(psp_logEx(nullptr, "%d\n", 333), 4);
    EXPECT_EQ(psp_logEx_with_time(nullptr, "%d\n", 4444), 5);
    EXPECT_EQ(psp_log_err("%d\n", 5), 2);
    EXPECT_EQ(log_err_ex(nullptr, ZYN_TRUE, "%d\n", 66), 3);
    EXPECT_EQ(captured.finish(), "1\n22\n333\n4444\n");
    EXPECT_EQ(errors.finish(), "5\n66\n");
}

TEST_F(LogBeforeStart, TheCLibrarysBufferHoldsTheMessage)
{
    const int status = run_in_child([] {
        CapturedFd captured(1);
        char buffer[4096];
        std::setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
        EXPECT_EQ(psp_log("text"), 4);
        EXPECT_EQ(lseek(1, 0, SEEK_END), 0);
        std::fflush(stdout);
        EXPECT_EQ(lseek(1, 0, SEEK_END), 4);
        std::setvbuf(stdout, nullptr, _IOLBF, 0);
        return 0;
    });
    EXPECT_EQ(status, 0);
}

TEST_F(LogBeforeStart, TheBackgroundDoesNotMatter)
{
    const int status = run_in_child([] {
        CapturedFd captured(1);
        psp_background = 1;
        EXPECT_EQ(psp_log("text"), 4);
        EXPECT_EQ(captured.finish(), "text");
        return 0;
    });
    EXPECT_EQ(status, 0);
}

TEST_F(LogBeforeStart, ThereAreNoMessagesInPieces)
{
    CapturedFd captured(1);
    EXPECT_EQ(psp_log_chunk_init(), nullptr);
    psp_log_chunk(nullptr, "text");
    psp_log_chunk_end(nullptr, "text");
    EXPECT_EQ(captured.finish(), "");
}

TEST_F(LogBeforeStart, AMessageThatAStopFreedIsLeftAlone)
{
    ASSERT_EQ(psp_init(), sOKAY);
    PSP_LOG_CHUNK chunk = psp_log_chunk_init();
    ASSERT_NE(chunk, nullptr);
    psp_log_chunk(chunk, "one");
    psp_term();
    CapturedFd captured(1);
    psp_log_chunk(chunk, "two");
    psp_log_chunk_end(chunk, "three");
    EXPECT_EQ(captured.finish(), "");
}

TEST_F(LogBeforeStart, AndAfterAStopIsTheSame)
{
    ASSERT_EQ(psp_init(), sOKAY);
    psp_term();
    CapturedFd captured(1);
    EXPECT_EQ(psp_log("%d", 1), 1);
    EXPECT_EQ(psp_log_chunk_init(), nullptr);
    EXPECT_EQ(captured.finish(), "1");
}

} // namespace
