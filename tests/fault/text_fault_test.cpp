// Output stacks and logging when memory runs out, files cannot be opened and transfers fail: what
// the caller is told, that nothing is lost, that no lock stays held and that all works again
// afterwards.
#include "support/text_fault.h"

#include "psp.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <random>
#include <string>

extern "C" ZYN_RETCODE __real_psp_syncEnterExcl(PSP_SEM sem);

using namespace psptest;

namespace {

class StackFault : public TextFault {};
class LogFault : public TextFault {};
class ChunkFault : public TextFault {};

class ContextFault : public TextFault {
  protected:
    void SetUp() override
    {
        TextFault::SetUp();
        PSP_LOG_CTX ctx;
        ASSERT_EQ(psp_log_initCtx(&ctx), sOKAY);
        psp_log_termCtx(&ctx); // the allocators have their chunks now
        used_ = memory_in_use();
    }

    std::size_t used_ = 0;
};

// ---- Stacks ----

TEST_F(StackFault, PushingWithoutMemoryLeavesTheStack)
{
    const std::size_t descriptors = open_descriptors();
    for (const std::string& name : {path_, std::string("STDOUT"), std::string()}) {
        const int runs = fail_every_call("tag_alloc", false, [&](Fault& fault, int) {
            CapturedFd captured(1);
            const ZYN_RETCODE rc = psp_stdout_openEx(nullptr, name.c_str());
            fault.disarm();
            if (fault.failures() == 0) {
                EXPECT_EQ(rc, sOKAY);
                psp_stdout_closeEx(nullptr);
            } else {
                EXPECT_TRUE(rc == eNOMEMORY || rc == eFILEOPEN) << rc;
            }
            EXPECT_EQ(open_descriptors(), descriptors + 2); // the capture's own
            expect_enterable([] {
                EXPECT_EQ(psp_printf("text"), 4);
                psp_flush();
            });
            EXPECT_EQ(captured.finish(), "text");
        });
        EXPECT_GE(runs, 1);
    }
}

TEST_F(StackFault, PushingTellsWhoseMemoryIsShort)
{
    // Level, record and name come from the stack's own tag; what follows is the stream.
    for (int n = 1; n <= 4; n++) {
        Fault fault("tag_alloc", n);
        EXPECT_EQ(psp_log_openEx(nullptr, path_.c_str()), n <= 3 ? eNOMEMORY : eFILEOPEN) << n;
    }
    for (int n = 1; n <= 2; n++) {
        Fault fault("tag_alloc", n);
        EXPECT_EQ(psp_log_openEx(nullptr, nullptr), eNOMEMORY) << n;
    }
    EXPECT_FALSE(file_exists(path_));
    expect_nothing_lost();
}

TEST_F(StackFault, PushingJumpsOutOfTheGlobalTagWithoutTheLock)
{
    int jumped = 0;
    fail_every_call("tag_alloc", false, [&](Fault& fault, int) {
        CapturedFd captured(1);
        ZYN_RETCODE rc = eNOMEMORY;
        jumped += jumps(PSP_GLOBAL_TAG, [&] { rc = psp_stdout_openEx(nullptr, path_.c_str()); });
        fault.disarm();
        expect_enterable([] { psp_flush(); });
        if (rc == sOKAY)
            psp_stdout_closeEx(nullptr);
        EXPECT_EQ(psp_log("text"), 4);
        EXPECT_EQ(captured.finish(), "text");
    });
    EXPECT_EQ(jumped, 2);
}

TEST_F(StackFault, PushingWhatCannotBeOpenedTellsSo)
{
    Fault fault("open", 1, true);
    CapturedFd captured(1);
    EXPECT_EQ(psp_stdout_openEx(nullptr, path_.c_str()), eFILEOPEN);
    EXPECT_EQ(psp_log_openEx(nullptr, path_.c_str()), eFILEOPEN);
    psp_log_closeEx(nullptr);
    EXPECT_EQ(psp_log("text"), 4);
    EXPECT_EQ(captured.finish(), "text");
    expect_nothing_lost();
}

// Enters a lock that another thread has just been in, and has popped the log's stack there.
ZYN_RETCODE enter_behind_another(PSP_SEM sem)
{
    Fault::replace("psp_syncEnterExcl", __real_psp_syncEnterExcl);
    std::thread([] { psp_log_closeEx(nullptr); }).join();
    return __real_psp_syncEnterExcl(sem);
}

TEST_F(StackFault, PoppingBehindAnotherThreadFindsTheStackEmpty)
{
    ASSERT_EQ(psp_log_openEx(nullptr, path_.c_str()), sOKAY);
    Fault::replace("psp_syncEnterExcl", enter_behind_another);
    psp_log_closeEx(nullptr);
    CapturedFd captured(1);
    expect_enterable([] { EXPECT_EQ(psp_log("text"), 4); });
    EXPECT_EQ(captured.finish(), "text");
    EXPECT_EQ(read_file(path_), "") << "nothing is logged any more";
    expect_nothing_lost();
}

TEST_F(StackFault, ALogThatCannotBeMadeIsNoErrorUnlessItsPathIs)
{
    CapturedFd captured(1);
    const int runs = fail_every_call("tag_alloc", false, [&](Fault& fault, int n) {
        const ZYN_RETCODE rc = psp_log_createEx(nullptr, dir_.c_str(), "log");
        fault.disarm();
        EXPECT_EQ(rc, n == 1 ? eNOMEMORY : sOKAY) << n;
        if (fault.failures() == 0)
            psp_log_closeEx(nullptr);
        expect_enterable([] { psp_log("text"); });
        if (file_exists(dir_ / "log")) {
            EXPECT_EQ(read_file(dir_ / "log"), "");
        }
    });
    EXPECT_GE(runs, 5);
    {
        Fault fault("open", 1);
        EXPECT_EQ(psp_log_createEx(nullptr, dir_.c_str(), "log"), sOKAY);
    }
    EXPECT_EQ(info_of(PSP_THREAD_TAG).used.current, 0u);
}

TEST_F(StackFault, PushingWithMemoryNeverJumps)
{
    const std::string other = dir_ / "other";
    for (const PSP_MEMTAG tag : {PSP_GLOBAL_TAG, PSP_THREAD_TAG}) {
        EXPECT_FALSE(jumps(tag, [&] {
            for (int level = 0; level < 2; level++) { // a file, and then a file that is open
                EXPECT_EQ(psp_log_createEx(nullptr, dir_.c_str(), "f"), sOKAY);
                EXPECT_EQ(psp_stdout_openEx(nullptr, other.c_str()), sOKAY);
            }
        }));
        for (int level = 0; level < 2; level++) {
            psp_log_closeEx(nullptr);
            psp_stdout_closeEx(nullptr);
        }
    }
}

TEST_F(StackFault, PrintingWithoutMemoryGivesTheLockBack)
{
    CapturedFd captured(1);
    CapturedFd errors(2);
    for (int round = 0; round < 2; round++) {
        {
            Fault fault("tag_alloc", 1, true);
            EXPECT_EQ(psp_printf("%*d", 500 * (round + 1), 1), -1);
            EXPECT_EQ(print_err("%*d", 500 * (round + 1), 1), -1);
            EXPECT_TRUE(jumps(PSP_GLOBAL_TAG, [] { psp_printf("%2000d", 1); }));
            EXPECT_TRUE(jumps(PSP_GLOBAL_TAG, [] { print_err("%2000d", 1); }));
        }
        expect_enterable([] {
            EXPECT_EQ(psp_printf("text"), 4);
            psp_flush();
            EXPECT_EQ(print_err("failed"), 6);
            psp_flushErr();
        });
    }
    EXPECT_EQ(captured.finish(), "texttext");
    EXPECT_EQ(errors.finish(), "failedfailed");
}

// ---- Sets of stacks ----

TEST_F(ContextFault, WithoutMemoryIsNotMade)
{
    // Two stacks take eight each: the tag, a level, its record, its name, and four of a stream. The
    // log stack takes a tag, and does without as long as nothing is pushed.
    constexpr int tag_of_the_log = 2 * 8 + 1;
    for (const bool forever : {false, true}) {
        const int runs = fail_every_call("tag_alloc", forever, [&](Fault& fault, int n) {
            PSP_LOG_CTX ctx;
            const ZYN_RETCODE rc = psp_log_initCtx(&ctx);
            fault.disarm();
            if (fault.failures() == 0 || n == tag_of_the_log) {
                EXPECT_EQ(rc, sOKAY);
            } else {
                EXPECT_TRUE(rc == eNOMEMORY || rc == eFILEOPEN) << rc << " at " << n;
                EXPECT_EQ(memory_in_use(), used_) << n << ", before anything is ended";
                expect_nothing_lost();
            }
            psp_log_termCtx(&ctx);
            EXPECT_EQ(memory_in_use(), used_) << n;
            expect_nothing_lost();
        });
        EXPECT_EQ(runs, tag_of_the_log);
    }
}

TEST_F(ContextFault, WithoutATagForItsLevelsIsNotMade)
{
    for (int n = 1; n <= 2; n++) {
        PSP_LOG_CTX ctx;
        Fault fault("psp_createTagEx", n);
        EXPECT_EQ(psp_log_initCtx(&ctx), eNOMEMORY);
        EXPECT_EQ(fault.failures(), 1);
        psp_log_termCtx(&ctx);
        EXPECT_EQ(memory_in_use(), used_);
    }
}

TEST_F(ContextFault, WithoutATagForTheLogIsMadeAndTakesNoLog)
{
    PSP_LOG_CTX ctx;
    {
        Fault fault("psp_createTagEx", 3);
        EXPECT_EQ(psp_log_initCtx(&ctx), sOKAY); // an empty stack needs nothing yet
        EXPECT_EQ(fault.failures(), 1);
    }
    EXPECT_EQ(psp_log_openEx(&ctx, path_.c_str()), eNOMEMORY);
    EXPECT_EQ(psp_log_openEx(&ctx, nullptr), eNOMEMORY);
    psp_log_closeEx(&ctx);
    CapturedFd captured(1);
    EXPECT_EQ(psp_logEx(&ctx, "text"), 4);
    EXPECT_EQ(captured.finish(), "text");
    psp_log_termCtx(&ctx);
    EXPECT_FALSE(file_exists(path_));
    EXPECT_EQ(memory_in_use(), used_);
}

TEST_F(ContextFault, WithoutMutexesWorksUnlocked)
{
    for (int n = 1; n <= 3; n++) {
        PSP_LOG_CTX ctx;
        {
            Fault fault("psp_syncCreate_check", n);
            EXPECT_EQ(psp_log_initCtx(&ctx), sOKAY);
            EXPECT_EQ(fault.failures(), 1);
        }
        CapturedFd captured(1);
        EXPECT_EQ(psp_log_openEx(&ctx, path_.c_str()), sOKAY);
        EXPECT_EQ(psp_stdout_openEx(&ctx, nullptr), sOKAY);
        EXPECT_EQ(psp_logEx(&ctx, "lost"), 0);
        psp_stdout_closeEx(&ctx);
        EXPECT_EQ(psp_logEx(&ctx, "text"), 4);
        EXPECT_EQ(captured.finish(), "text");
        psp_log_termCtx(&ctx);
        EXPECT_EQ(read_file(path_).size(), 2 * (time_prefix_length + 4));
    }
    expect_nothing_lost();
}

TEST_F(ContextFault, WithoutAFileHandleIsNotMade)
{
    // The standard streams need no open; their handles' memory is what can fail them.
    PSP_LOG_CTX ctx;
    Fault fault("open", 1, true);
    EXPECT_EQ(psp_log_initCtx(&ctx), sOKAY);
    EXPECT_EQ(fault.calls(), 0);
    psp_log_termCtx(&ctx);
}

// ---- Logging ----

TEST_F(LogFault, WithoutMemoryIsNothing)
{
    ASSERT_EQ(psp_log_openEx(nullptr, path_.c_str()), sOKAY);
    CapturedFd captured(1);
    CapturedFd errors(2);
    for (const bool forever : {false, true}) {
        const int runs = fail_every_call("tag_alloc", forever, [&](Fault& fault, int) {
            const int32_t written = psp_log("%600d", 1);
            fault.disarm();
            EXPECT_EQ(written, fault.failures() > 0 ? 0 : 600);
            expect_enterable([] { psp_log_err("x"); });
        });
        EXPECT_EQ(runs, 1) << "a message is formatted into one buffer, and written from there";
    }
    EXPECT_EQ(captured.finish().size(), 1200u);
    EXPECT_EQ(errors.finish(), "xxxx");
    EXPECT_EQ(read_file(path_).size(),
              2 * (time_prefix_length + 600) + 4 * (time_prefix_length + 1));
    psp_log_closeEx(nullptr);
}

TEST_F(LogFault, JumpsOutOfTheThreadsTagWithoutALock)
{
    CapturedFd captured(1);
    Fault fault("tag_alloc", 1);
    EXPECT_TRUE(jumps(PSP_THREAD_TAG, [] { psp_log("%600d", 1); }));
    fault.disarm();
    expect_enterable([] { EXPECT_EQ(psp_log("text"), 4); });
    EXPECT_EQ(captured.finish(), "text");
    EXPECT_EQ(info_of(PSP_THREAD_TAG).used.current, 0u);
}

TEST_F(LogFault, CountsBytesThatTheConsoleDidNotTake)
{
    ASSERT_EQ(psp_log_openEx(nullptr, path_.c_str()), sOKAY);
    CapturedFd captured(1);
    {
        Fault fault("write", 1); // the console's
        EXPECT_EQ(psp_log("one\n"), 4);
        EXPECT_EQ(fault.failures(), 1);
    }
    EXPECT_EQ(read_file(path_).size(), time_prefix_length + 4);
    {
        Fault fault("write", 2); // the log's
        EXPECT_EQ(psp_log("two\n"), 4);
        EXPECT_EQ(fault.failures(), 1);
    }
    EXPECT_EQ(captured.finish(), "one\ntwo\n"); // what was kept came with the next flush
    EXPECT_EQ(psp_log("%s", ""), 0);
    psp_log_closeEx(nullptr);
    const std::string log = read_file(path_);
    EXPECT_EQ(log.size(), 3 * time_prefix_length + 8);
    EXPECT_NE(log.find("two"), std::string::npos);
}

TEST_F(LogFault, OfBytesThatAreRefusedTellsSoOfTheConsole)
{
    ASSERT_EQ(psp_log_openEx(nullptr, path_.c_str()), sOKAY);
    CapturedFd captured(1);
    Fault::replace(
        "psp_fileWrite", +[](PSP_FH, const void*, uint32_t size) { return size / 2; });
    EXPECT_EQ(psp_log_with_time("%2000d", 1), -1) << "one window is taken";
    EXPECT_EQ(psp_log_with_time("text"), -1) << "the time neither";
    EXPECT_EQ(psp_log("text"), -1);
    Fault::clear();
    psp_flush();
    psp_log_closeEx(nullptr);
    const std::string log = read_file(path_);
    EXPECT_EQ(captured.finish(), log);
    EXPECT_EQ(log.size(), 1024u);
    EXPECT_EQ(log.substr(time_prefix_length), std::string(1024 - time_prefix_length, ' '));
}

TEST_F(LogFault, GoesOnAfterInterruptedAndShortWrites)
{
    ASSERT_EQ(psp_log_openEx(nullptr, path_.c_str()), sOKAY);
    CapturedFd captured(1);
    {
        Fault fault("write", 1, false, EINTR);
        EXPECT_EQ(psp_log("one\n"), 4);
        EXPECT_EQ(fault.calls(), 3);
    }
    Fault::shorten_nth("write", 1, 1, true);
    EXPECT_EQ(psp_log("two\n"), 4);
    Fault::clear();
    EXPECT_EQ(captured.finish(), "one\ntwo\n");
    psp_log_closeEx(nullptr);
    EXPECT_EQ(read_file(path_).size(), 2 * (time_prefix_length + 4));
}

TEST_F(LogFault, WithoutALocalTimeKeepsTheMessage)
{
    ASSERT_EQ(psp_log_openEx(nullptr, path_.c_str()), sOKAY);
    CapturedFd captured(1);
    {
        Fault fault("localtime_r", 1, true);
        psp_log("text\n");
        EXPECT_GE(fault.failures(), 1);
    }
    psp_log_closeEx(nullptr);
    EXPECT_EQ(captured.finish(), "text\n");
    EXPECT_EQ(read_file(path_), "  text\n");
}

time_t told_time;

time_t tell_time(time_t*)
{
    return told_time;
}

TEST_F(LogFault, WritesEveryTimeAsTheCLibraryDoes)
{
    constexpr time_t day = 86400;
    constexpr time_t year_1000 = -30610224000, year_10000 = 253402300800;
    std::mt19937_64 random(31);
    Fault::replace("time", tell_time);
    for (int i = 0; i < 2000; i++) {
        const time_t around[] = {year_1000, year_10000, 0, year_1000 + 12000 * 365 * day};
        told_time = i < 40 ? around[i % 4] + (i / 4 - 5) * day / 2 - (i % 8 < 4)
                           : year_1000 + static_cast<time_t>(random() % (10000ULL * 365 * day));
        struct tm local;
        localtime_r(&told_time, &local);
        char expected[64];
        strftime(expected, sizeof expected, "[%F %T]  x", &local);
        CapturedFd captured(1);
        psp_log_with_time("x");
        ASSERT_EQ(captured.finish(), expected);
    }
}

TEST_F(LogFault, ShowsTheSameTimeOnBothSides)
{
    ASSERT_EQ(psp_log_openEx(nullptr, path_.c_str()), sOKAY);
    CapturedFd captured(1);
    EXPECT_EQ(psp_log_with_time("text"), static_cast<int32_t>(time_prefix_length) + 4);
    psp_log_closeEx(nullptr);
    EXPECT_EQ(captured.finish(), read_file(path_));
}

// ---- Messages in pieces ----

TEST_F(ChunkFault, DropsThePieceThatHasNoMemory)
{
    const char* const pieces[] = {"one ", "two ", "three"};
    for (int failing = 1; failing <= 3; failing++)
        for (const bool jump : {false, true}) {
            CapturedFd captured(1);
            std::string expected;
            PSP_LOG_CHUNK chunk = psp_log_chunk_init();
            Fault fault("tag_alloc", failing);
            int jumped = 0;
            for (int i = 1; i <= 3; i++) {
                const auto add = [&] {
                    if (i < 3)
                        psp_log_chunk(chunk, "%s", pieces[i - 1]);
                    else
                        psp_log_chunk_end(chunk, "%s", pieces[i - 1]);
                };
                if (jump)
                    jumped += jumps(PSP_GLOBAL_TAG, add);
                else
                    add();
                expected += i == failing ? "" : pieces[i - 1];
            }
            EXPECT_EQ(fault.failures(), 1);
            EXPECT_EQ(jumped, jump ? 1 : 0);
            EXPECT_EQ(captured.finish(), expected);
            expect_nothing_lost();
        }
}

} // namespace
