// Output stacks: what is pushed, shared and popped, and sets of stacks of the caller's.
#include "support/text_test.h"

#include "psp.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <unistd.h>

using namespace psptest;

namespace {

class StdoutStack : public PspTest {};
class LogStack : public PspTest {};
class LogContext : public PspTest {};
class OutputBeforeStart : public RawTest {};
class OutputStop : public RawTest {};

// ---- The standard output stack ----

TEST_F(StdoutStack, SendsOutputIntoAFileForAWhile)
{
    const TempDir dir;
    write_file(dir / "f", "old");
    CapturedFd captured(1);
    psp_printf("a");
    EXPECT_EQ(psp_stdout_openEx(nullptr, (dir / "f").c_str()), sOKAY);
    EXPECT_EQ(read_file(dir / "f"), ""); // truncated at once
    EXPECT_EQ(psp_printf("b%d", 1), 2);
    psp_flush();
    EXPECT_EQ(read_file(dir / "f"), "b1");
    psp_printf("c");
    psp_stdout_closeEx(nullptr);
    EXPECT_EQ(read_file(dir / "f"), "b1c"); // the file is closed
    psp_printf("d");
    psp_flush();
    EXPECT_EQ(captured.finish(), "ad");
}

TEST_F(StdoutStack, WritesUtf8WithoutAMark)
{
    const TempDir dir;
    EXPECT_EQ(psp_stdout_openEx(nullptr, (dir / "f").c_str()), sOKAY);
    EXPECT_EQ(psp_printf("\xC3\xA9\xFF"), 3);
    psp_stdout_closeEx(nullptr);
    EXPECT_EQ(read_file(dir / "f"), "\xC3\xA9\xFF");
}

TEST_F(StdoutStack, SwallowsOutputWithoutAName)
{
    CapturedFd captured(1);
    for (const char* name : {static_cast<const char*>(nullptr), ""}) {
        EXPECT_EQ(psp_stdout_openEx(nullptr, name), sOKAY);
        EXPECT_EQ(psp_printf("silent"), 0);
        psp_flush();
        psp_stdout_closeEx(nullptr);
        EXPECT_EQ(psp_printf("loud\n"), 5);
        psp_flush();
    }
    EXPECT_EQ(captured.finish(), "loud\nloud\n");
}

TEST_F(StdoutStack, WithoutAFileFlushesTheCLibrarysStream)
{
    const int status = run_in_child([] {
        CapturedFd captured(1);
        char buffer[4096];
        std::setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
        EXPECT_EQ(psp_stdout_openEx(nullptr, nullptr), sOKAY);
        std::fputs("held", stdout);
        EXPECT_EQ(lseek(1, 0, SEEK_END), 0);
        psp_flush();
        EXPECT_EQ(lseek(1, 0, SEEK_END), 4);
        psp_stdout_closeEx(nullptr);
        std::fputs("back", stdout);
        psp_flush(); // the destination has a file again: the C library keeps its bytes
        EXPECT_EQ(lseek(1, 0, SEEK_END), 4);
        std::fflush(stdout);
        std::setvbuf(stdout, nullptr, _IOLBF, 0);
        return 0;
    });
    EXPECT_EQ(status, 0);
}

TEST_F(StdoutStack, OpensAFileOnceWhateverTheCaseOfItsName)
{
    const TempDir dir;
    const std::size_t descriptors = open_descriptors();
    EXPECT_EQ(psp_stdout_openEx(nullptr, (dir / "out.txt").c_str()), sOKAY);
    psp_printf("1");
    EXPECT_EQ(psp_stdout_openEx(nullptr, (dir / "OUT.txt").c_str()), sOKAY);
    EXPECT_FALSE(file_exists(dir / "OUT.txt"));
    EXPECT_EQ(open_descriptors(), descriptors + 1);
    psp_printf("2");
    psp_stdout_closeEx(nullptr);
    EXPECT_EQ(open_descriptors(), descriptors + 1);
    EXPECT_EQ(read_file(dir / "out.txt"), ""); // still open, still cached
    psp_printf("3");
    psp_stdout_closeEx(nullptr);
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(read_file(dir / "out.txt"), "123");
}

TEST_F(StdoutStack, SharesAStreamAcrossOthersBetween)
{
    const TempDir dir;
    CapturedFd captured(1);
    EXPECT_EQ(psp_stdout_openEx(nullptr, (dir / "a").c_str()), sOKAY);
    psp_printf("1");
    EXPECT_EQ(psp_stdout_openEx(nullptr, (dir / "b").c_str()), sOKAY);
    psp_printf("2");
    EXPECT_EQ(psp_stdout_openEx(nullptr, nullptr), sOKAY);
    psp_printf("lost");
    EXPECT_EQ(psp_stdout_openEx(nullptr, (dir / "A").c_str()), sOKAY);
    psp_printf("3");
    EXPECT_EQ(psp_stdout_openEx(nullptr, "STDOUT"), sOKAY); // the level at the bottom
    psp_printf("4");
    EXPECT_EQ(psp_stdout_openEx(nullptr, ""), sOKAY);
    psp_printf("lost");
    for (const char* text : {"5", "6", "lost", "7", "8", "9"}) {
        psp_stdout_closeEx(nullptr);
        psp_printf("%s", text);
    }
    psp_flush();
    EXPECT_EQ(read_file(dir / "a"), "1368");
    EXPECT_EQ(read_file(dir / "b"), "27");
    EXPECT_EQ(captured.finish(), "459");
    EXPECT_FALSE(file_exists("STDOUT"));
}

TEST_F(StdoutStack, CanLeadToTheStandardError)
{
    CapturedFd captured(1);
    CapturedFd errors(2);
    EXPECT_EQ(psp_stdout_openEx(nullptr, "stderr"), sOKAY);
    psp_printf("text");
    psp_stdout_closeEx(nullptr);
    EXPECT_EQ(errors.finish(), "text");
    EXPECT_EQ(captured.finish(), "");
}

TEST_F(StdoutStack, CopiesTheName)
{
    const TempDir dir;
    std::string name = dir / "f";
    EXPECT_EQ(psp_stdout_openEx(nullptr, name.c_str()), sOKAY);
    name[name.size() - 1] = 'g';
    EXPECT_EQ(psp_stdout_openEx(nullptr, name.c_str()), sOKAY); // another file
    psp_printf("2");
    psp_stdout_closeEx(nullptr);
    psp_printf("1");
    psp_stdout_closeEx(nullptr);
    EXPECT_EQ(read_file(dir / "f"), "1");
    EXPECT_EQ(read_file(dir / "g"), "2");
}

TEST_F(StdoutStack, StaysAsItIsWhenAFileCannotBeOpened)
{
    const TempDir dir;
    CapturedFd captured(1);
    const std::size_t descriptors = open_descriptors();
    EXPECT_EQ(psp_stdout_openEx(nullptr, (dir / "none/f").c_str()), eFILEOPEN);
    EXPECT_EQ(psp_stdout_openEx(nullptr, dir.c_str()), eFILEOPEN);
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(psp_printf("text"), 4);
    psp_flush();
    EXPECT_EQ(captured.finish(), "text");
}

TEST_F(StdoutStack, OpensAgainWhatFailedOrWasClosed)
{
    const TempDir dir;
    EXPECT_EQ(psp_stdout_openEx(nullptr, (dir / "d/f").c_str()), eFILEOPEN);
    std::filesystem::create_directory(dir / "d");
    for (int round = 0; round < 2; round++) {
        EXPECT_EQ(psp_stdout_openEx(nullptr, (dir / "d/f").c_str()), sOKAY);
        EXPECT_EQ(read_file(dir / "d/f"), "");
        psp_printf("%d", round);
        psp_stdout_closeEx(nullptr);
        EXPECT_EQ(read_file(dir / "d/f"), std::to_string(round));
    }
}

TEST_F(StdoutStack, PoppedEmptySwallowsOutput)
{
    CapturedFd captured(1);
    psp_printf("before");
    psp_stdout_closeEx(nullptr); // the bottom level goes like any other
    EXPECT_EQ(captured.text(), "before");
    EXPECT_EQ(psp_printf("lost"), 0);
    psp_flush();
    psp_stdout_closeEx(nullptr);
    psp_stdout_closeEx(nullptr);
    EXPECT_EQ(psp_printf("lost"), 0);
    EXPECT_EQ(psp_stdout_openEx(nullptr, "stdout"), sOKAY);
    EXPECT_EQ(psp_printf("after"), 5);
    psp_flush();
    EXPECT_EQ(captured.finish(), "beforeafter");
}

TEST_F(StdoutStack, IsRefusedAFileByTheSwitchesOfTheProcess)
{
    const TempDir dir;
    const int status = run_in_child([&] {
        psp_nodisk();
        EXPECT_EQ(psp_stdout_openEx(nullptr, (dir / "f").c_str()), eFILEOPEN);
        EXPECT_EQ(psp_log_openEx(nullptr, (dir / "f").c_str()), eFILEOPEN);
        EXPECT_EQ(psp_stdout_openEx(nullptr, "stderr"), sOKAY);
        psp_stdout_closeEx(nullptr);
        EXPECT_EQ(psp_stdout_openEx(nullptr, nullptr), sOKAY);
        psp_stdout_closeEx(nullptr);
        return 0;
    });
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(file_exists(dir / "f"));
}

// A model of the stack: names with their case folded, and the text that each destination has seen
// since it was opened last.
TEST_F(StdoutStack, BehavesLikeAListOfSharedNames)
{
    const TempDir dir;
    CapturedFd captured(1);
    const std::string names[] = {"a", "A", "b", "B", "c", "", "stdout"};
    std::vector<std::string> levels = {"stdout"};
    std::string seen[128]; // by the folded letter; 's' for the standard output
    const auto key = [](const std::string& name) {
        return name.empty() ? 0 : std::tolower(static_cast<unsigned char>(name[0]));
    };
    const auto is_open = [&](const std::string& name) {
        for (const std::string& level : levels)
            if (key(level) == key(name))
                return true;
        return false;
    };
    std::mt19937 random(52);
    for (int step = 0; step < 3000; step++) {
        const uint32_t what = random() % 5;
        if (what == 0 && levels.size() < 12) {
            const std::string& name = names[random() % std::size(names)];
            const std::string path = name.empty() || name == "stdout" ? name : dir / name;
            ASSERT_EQ(psp_stdout_openEx(nullptr, path.c_str()), sOKAY);
            if (!is_open(name) && name != "stdout")
                seen[key(name)].clear();
            levels.push_back(name);
        } else if (what == 1 && levels.size() > 1) {
            psp_stdout_closeEx(nullptr);
            const std::string name = levels.back();
            levels.pop_back();
            if (!is_open(name) && !name.empty()) {
                // Its last level is gone: the file is complete. Either spelling made it.
                const std::string lower(1, static_cast<char>(key(name)));
                const std::string upper(1, static_cast<char>(std::toupper(key(name))));
                bool found = false;
                for (const std::string& file : {dir / lower, dir / upper})
                    found |= file_exists(file) && read_file(file) == seen[key(name)];
                ASSERT_TRUE(found) << name;
            }
        } else {
            const std::string text = std::to_string(step) + ";";
            const int32_t expected = levels.back().empty() ? 0 : static_cast<int32_t>(text.size());
            ASSERT_EQ(psp_printf("%s", text.c_str()), expected);
            seen[key(levels.back())] += text;
        }
    }
    while (levels.size() > 1) {
        psp_stdout_closeEx(nullptr);
        levels.pop_back();
    }
    psp_flush();
    EXPECT_EQ(captured.finish(), seen[static_cast<int>('s')]);
}

// ---- The log stack ----

TEST_F(LogStack, IsEmptyAtFirst)
{
    psp_log_closeEx(nullptr); // nothing to pop
    CapturedFd captured(1);
    EXPECT_EQ(psp_log("text"), 4);
    EXPECT_EQ(captured.finish(), "text");
}

TEST_F(LogStack, StopsTheLogWithoutAName)
{
    const TempDir dir;
    CapturedFd captured(1);
    EXPECT_EQ(psp_log_openEx(nullptr, (dir / "log").c_str()), sOKAY);
    psp_log("1\n");
    for (const char* name : {static_cast<const char*>(nullptr), ""}) {
        EXPECT_EQ(psp_log_openEx(nullptr, name), sOKAY);
        psp_log("not logged\n");
    }
    psp_log_closeEx(nullptr);
    psp_log_closeEx(nullptr);
    psp_log("2\n");
    psp_log_closeEx(nullptr);
    psp_log("not logged\n");
    const std::string log = read_file(dir / "log");
    EXPECT_EQ(log.size(), 2 * (time_prefix_length + 2));
    EXPECT_EQ(log.find("not"), std::string::npos);
}

TEST_F(LogStack, GoesBackToTheFileBefore)
{
    const TempDir dir;
    CapturedFd captured(1);
    const TimeSpan now;
    EXPECT_EQ(psp_log_openEx(nullptr, (dir / "a").c_str()), sOKAY);
    EXPECT_EQ(psp_log_openEx(nullptr, (dir / "b").c_str()), sOKAY);
    psp_log("to b\n");
    psp_log_closeEx(nullptr);
    psp_log("to a\n");
    psp_log_closeEx(nullptr);
    EXPECT_TRUE(now.covers(read_file(dir / "a"), "to a\n"));
    EXPECT_TRUE(now.covers(read_file(dir / "b"), "to b\n"));
}

TEST_F(LogStack, StaysAsItIsWhenAFileCannotBeOpened)
{
    const TempDir dir;
    EXPECT_EQ(psp_log_openEx(nullptr, (dir / "none/log").c_str()), eFILEOPEN);
    psp_log_closeEx(nullptr); // empty still
    CapturedFd captured(1);
    psp_log("text");
    EXPECT_EQ(captured.finish(), "text");
}

TEST_F(LogStack, IsMadeInADirectory)
{
    const TempDir dir;
    CapturedFd captured(1);
    const TimeSpan now;
    EXPECT_EQ(psp_log_createEx(nullptr, dir.c_str(), "server.log"), sOKAY);
    psp_log("text");
    psp_log_closeEx(nullptr);
    EXPECT_TRUE(now.covers(read_file(dir / "server.log"), "text"));
}

TEST_F(LogStack, MadeInAMissingDirectoryIsNoneAndNoError)
{
    const TempDir dir;
    CapturedFd captured(1);
    EXPECT_EQ(psp_log_openEx(nullptr, (dir / "log").c_str()), sOKAY);
    EXPECT_EQ(psp_log_createEx(nullptr, (dir / "none").c_str(), "server.log"), sOKAY);
    psp_log("text");
    psp_log_closeEx(nullptr); // the one level that there is
    psp_log("more");
    EXPECT_EQ(read_file(dir / "log").size(), time_prefix_length + 4);
}

// ---- Sets of the caller's ----

TEST_F(LogContext, NeedsStorage)
{
    EXPECT_EQ(psp_log_initCtx(nullptr), eINVNULLARG);
    psp_log_termCtx(nullptr);
}

TEST_F(LogContext, CarriesItsMagicFromStartToEndAndOn)
{
    PSP_LOG_CTX ctx;
    std::memset(&ctx, 0xA5, sizeof ctx);
    EXPECT_EQ(psp_log_initCtx(&ctx), sOKAY);
    EXPECT_EQ(ctx.magic, 663006641u);
    EXPECT_EQ(ctx.magic, 0x2784ADB1u);
    EXPECT_NE(ctx.psp_stdout_stack.root, nullptr);
    EXPECT_NE(ctx.psp_stderr_stack.root, nullptr);
    EXPECT_EQ(ctx.psp_log_stack.root, nullptr);
    psp_log_termCtx(&ctx);
    EXPECT_EQ(ctx.magic, 663006641u);
    EXPECT_EQ(ctx.psp_stdout_stack.root, nullptr);
    EXPECT_EQ(ctx.psp_stderr_stack.root, nullptr);
}

TEST_F(LogContext, WithoutItsMagicIsLeftAlone)
{
    PSP_LOG_CTX ctx;
    std::memset(&ctx, 0xA5, sizeof ctx);
    psp_log_termCtx(&ctx);
    const unsigned char* bytes = reinterpret_cast<unsigned char*>(&ctx);
    for (std::size_t i = 0; i < sizeof ctx; i++)
        EXPECT_EQ(bytes[i], 0xA5);
}

TEST_F(LogContext, HasItsFieldsInOrder)
{
    EXPECT_EQ(offsetof(PSP_LOG_CTX, magic), 0u);
    EXPECT_LT(offsetof(PSP_LOG_CTX, psp_log_stack), offsetof(PSP_LOG_CTX, psp_stdout_stack));
    EXPECT_LT(offsetof(PSP_LOG_CTX, psp_stdout_stack), offsetof(PSP_LOG_CTX, psp_stderr_stack));
}

TEST_F(LogContext, HasStacksOfItsOwn)
{
    const TempDir dir;
    PSP_LOG_CTX ctx;
    ASSERT_EQ(psp_log_initCtx(&ctx), sOKAY);
    CapturedFd captured(1);
    EXPECT_EQ(psp_stdout_openEx(&ctx, (dir / "out").c_str()), sOKAY);
    EXPECT_EQ(psp_log_openEx(&ctx, (dir / "log").c_str()), sOKAY);
    const TimeSpan now;
    EXPECT_EQ(psp_logEx(&ctx, "to %s\n", "set"), 7);
    psp_log("to process\n");
    psp_printf("printed\n");
    psp_flush();
    EXPECT_EQ(captured.text(), "to process\nprinted\n");
    EXPECT_EQ(read_file(dir / "out"), "to set\n");
    EXPECT_TRUE(now.covers(read_file(dir / "log"), "to set\n"));
    psp_stdout_closeEx(nullptr); // the process's, not the set's
    psp_stdout_openEx(nullptr, "stdout");
    psp_logEx(&ctx, "2\n");
    psp_stdout_closeEx(&ctx);
    psp_log_closeEx(&ctx);
    psp_logEx(&ctx, "3\n");
    EXPECT_EQ(read_file(dir / "out"), "to set\n2\n");
    EXPECT_EQ(captured.finish(), "to process\nprinted\n3\n");
    psp_log_termCtx(&ctx);
}

TEST_F(LogContext, ClosesEverythingAtItsEnd)
{
    const TempDir dir;
    CapturedFd captured(1);
    PSP_LOG_CTX ctx;
    ASSERT_EQ(psp_log_initCtx(&ctx), sOKAY);
    const std::size_t descriptors = open_descriptors();
    for (const char* name : {"a", "b", "A", "c"}) {
        EXPECT_EQ(psp_stdout_openEx(&ctx, (dir / name).c_str()), sOKAY);
        EXPECT_EQ(psp_log_createEx(&ctx, dir.c_str(), (std::string("log_") + name).c_str()), sOKAY);
    }
    psp_logEx(&ctx, "text");
    EXPECT_GT(open_descriptors(), descriptors);
    psp_log_termCtx(&ctx);
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(read_file(dir / "c"), "text");
    EXPECT_EQ(read_file(dir / "log_c").size(), time_prefix_length + 4);
    EXPECT_EQ(captured.finish(), "");
}

TEST_F(LogContext, MayEndTwiceAndBeginAgain)
{
    PSP_LOG_CTX ctx;
    CapturedFd captured(1);
    for (int round = 0; round < 3; round++) {
        ASSERT_EQ(psp_log_initCtx(&ctx), sOKAY);
        EXPECT_EQ(psp_logEx(&ctx, "%d", round), 1);
        psp_log_termCtx(&ctx);
        psp_log_termCtx(&ctx);
    }
    EXPECT_EQ(captured.finish(), "012");
}

TEST_F(LogContext, GivesItsMemoryBack)
{
    const TempDir dir;
    std::size_t after_first = 0;
    for (int round = 0; round < 100; round++) {
        PSP_LOG_CTX ctx;
        ASSERT_EQ(psp_log_initCtx(&ctx), sOKAY);
        for (int i = 0; i < 20; i++)
            EXPECT_EQ(psp_log_openEx(&ctx, (dir / "log").c_str()), sOKAY);
        psp_log_termCtx(&ctx);
        if (round == 0)
            after_first = memory_in_use(); // the files' own tag has its chunks now
    }
    EXPECT_EQ(memory_in_use(), after_first);
}

// ---- Without the library ----

TEST_F(OutputBeforeStart, NothingOpens)
{
    const TempDir dir;
    EXPECT_EQ(psp_log_openEx(nullptr, (dir / "f").c_str()), ePSP_FAILURE);
    EXPECT_EQ(psp_log_openEx(nullptr, nullptr), ePSP_FAILURE);
    EXPECT_EQ(psp_stdout_openEx(nullptr, (dir / "f").c_str()), ePSP_FAILURE);
    EXPECT_EQ(psp_stdout_openEx(nullptr, nullptr), ePSP_FAILURE);
    psp_log_closeEx(nullptr);
    psp_stdout_closeEx(nullptr);
    EXPECT_EQ(psp_log_createEx(nullptr, dir.c_str(), "f"), eNOMEMORY);
    EXPECT_FALSE(file_exists(dir / "f"));
}

TEST_F(OutputBeforeStart, ASetIsNotMade)
{
    PSP_LOG_CTX ctx;
    std::memset(&ctx, 0xA5, sizeof ctx);
    EXPECT_EQ(psp_log_initCtx(&ctx), eNOMEMORY);
    psp_log_termCtx(&ctx);
    EXPECT_EQ(psp_log_initCtx(nullptr), eINVNULLARG);
}

TEST_F(OutputBeforeStart, PrintingIsHarmless)
{
    CapturedFd captured(1);
    CapturedFd errors(2);
    EXPECT_EQ(psp_printf("%d", 1), 0);
    EXPECT_EQ(print_err("%d", 1), 0);
    psp_flush();
    psp_flushErr();
    EXPECT_EQ(captured.finish(), "");
    EXPECT_EQ(errors.finish(), "");
}

TEST_F(OutputStop, WritesAndClosesWhatIsOpen)
{
    const TempDir dir;
    CapturedFd captured(1);
    CapturedFd errors(2);
    ASSERT_EQ(psp_init(), sOKAY);
    EXPECT_EQ(psp_log_openEx(nullptr, (dir / "log").c_str()), sOKAY);
    psp_printf("out");
    print_err("err");
    EXPECT_EQ(psp_stdout_openEx(nullptr, (dir / "f").c_str()), sOKAY);
    psp_printf("file");
    psp_term();
    EXPECT_EQ(read_file(dir / "f"), "file");
    EXPECT_EQ(captured.finish(), "out");
    EXPECT_EQ(errors.finish(), "err");
}

TEST_F(OutputStop, ForgetsTheRedirections)
{
    const TempDir dir;
    CapturedFd captured(1);
    ASSERT_EQ(psp_init(), sOKAY);
    EXPECT_EQ(psp_stdout_openEx(nullptr, nullptr), sOKAY);
    EXPECT_EQ(psp_log_openEx(nullptr, (dir / "log").c_str()), sOKAY);
    psp_term();
    ASSERT_EQ(psp_init(), sOKAY);
    EXPECT_EQ(psp_log("text"), 4);
    psp_term();
    EXPECT_EQ(captured.finish(), "text");
    EXPECT_EQ(read_file(dir / "log"), "");
}

TEST_F(OutputStop, OfOneOfTwoStartsKeepsEverything)
{
    const TempDir dir;
    ASSERT_EQ(psp_init(), sOKAY);
    ASSERT_EQ(psp_init(), sOKAY);
    EXPECT_EQ(psp_stdout_openEx(nullptr, (dir / "f").c_str()), sOKAY);
    psp_term();
    EXPECT_EQ(psp_printf("text"), 4);
    psp_term();
    EXPECT_EQ(read_file(dir / "f"), "text");
}

TEST_F(OutputStop, LeavesASetHarmless)
{
    PSP_LOG_CTX ctx;
    ASSERT_EQ(psp_init(), sOKAY);
    ASSERT_EQ(psp_log_initCtx(&ctx), sOKAY);
    psp_term();
    psp_log_termCtx(&ctx); // too late, and no harm done
}

} // namespace
