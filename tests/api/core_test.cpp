// Start and stop of the library as its users see them, the process-wide switches, the critical
// section, the version and the table of return codes.
#include "support/psp_test.h"

#include "psp.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <thread>
#include <vector>

#include <pthread.h>
#include <sys/resource.h>

using namespace psptest;

namespace {

using std::chrono::milliseconds;
using std::this_thread::sleep_for;

// What the flags held before any code of the tests ran.
struct Flags {
    std::int32_t inited, terminating, readonly, diskless, background, monotonic;
};

Flags read_flags()
{
    return {psp_inited,   psp_terminating, psp_readonly,
            psp_diskless, psp_background,  gUseMonotonicClock};
}

const Flags flags_at_load = read_flags();

// More than a process has thread-specific keys, so that a lost one is noticed.
constexpr int many_cycles = PTHREAD_KEYS_MAX + 76;

class Lifecycle : public RawTest {};
class ProcessSetUp : public RawTest {};
class Switches : public RawTest {};
class CriticalSection : public RawTest {};

PSP_SEM make_mutex()
{
    return psp_syncCreate_check(PSP_SEM_MUTEX, __FILE__, __LINE__);
}

// Whether memory, locks, named globals and output work now.
bool library_works()
{
    void* const block = psp_getMem(100, PSP_GLOBAL_TAG, 3, nullptr, __FILE__, __LINE__);
    if (block == nullptr)
        return false;
    psp_freeMem(block, PSP_GLOBAL_TAG, __FILE__, __LINE__);
    const PSP_SEM sem = make_mutex();
    if (sem == PSP_SEM_INVALID)
        return false;
    psp_syncEnterExcl(sem);
    psp_syncExitExcl(sem);
    psp_syncDelete(sem);
    void* shared = nullptr;
    return psp_globalGet("core_test", 8, nullptr, nullptr, &shared) == sOKAY && shared != nullptr &&
           psp_printf("%s", "") == 0;
}

// ---- Start and stop ----

TEST(FlagsAtLoad, SayThatNothingRuns)
{
    EXPECT_EQ(flags_at_load.inited, 0);
    EXPECT_EQ(flags_at_load.terminating, 0);
    EXPECT_EQ(flags_at_load.readonly, 0);
    EXPECT_EQ(flags_at_load.diskless, 0);
    EXPECT_EQ(flags_at_load.background, 0);
    EXPECT_EQ(flags_at_load.monotonic, -1);
}

TEST_F(Lifecycle, StartsOnceAndCountsItsUsers)
{
    ASSERT_EQ(psp_init(), sOKAY);
    EXPECT_EQ(psp_inited, 1);
    const PSP_SEM sem = make_mutex();
    ASSERT_NE(sem, PSP_SEM_INVALID);

    EXPECT_EQ(psp_init(), sOKAY);
    EXPECT_EQ(psp_inited, 2);
    EXPECT_EQ(psp_init(), sOKAY);
    EXPECT_EQ(psp_inited, 3);
    psp_term();
    EXPECT_EQ(psp_inited, 2);
    psp_term();
    EXPECT_EQ(psp_inited, 1);

    // The mutex of the first user outlived the other two: it still excludes another thread.
    psp_syncEnterExcl(sem);
    std::atomic<bool> entered{false};
    std::thread other([&] {
        psp_syncEnterExcl(sem);
        entered = true;
        psp_syncExitExcl(sem);
    });
    sleep_for(milliseconds(20));
    EXPECT_FALSE(entered);
    psp_syncExitExcl(sem);
    other.join();
    EXPECT_TRUE(entered);

    psp_term();
    EXPECT_EQ(psp_inited, 0);
    EXPECT_EQ(make_mutex(), PSP_SEM_INVALID);
}

TEST_F(Lifecycle, AnEarlyStartLeavesWhatRunsAlone)
{
    ASSERT_EQ(psp_init(), sOKAY);
    auto* const text =
        static_cast<char*>(psp_getMem(0, PSP_GLOBAL_TAG, 13, "kept", __FILE__, __LINE__));
    ASSERT_NE(text, nullptr);
    ASSERT_EQ(psp_init(), sOKAY);
    EXPECT_STREQ(text, "kept");
    psp_term();
    EXPECT_STREQ(text, "kept");
    psp_term();
}

TEST_F(Lifecycle, WorksAgainAfterEveryStop)
{
    for (int i = 0; i < 5; i++) {
        EXPECT_FALSE(library_works());
        ASSERT_EQ(psp_init(), sOKAY);
        EXPECT_TRUE(library_works());
        psp_term();
        EXPECT_EQ(memory_in_use(), 0u);
    }
}

TEST_F(Lifecycle, CanBeRepeatedWithoutLosingAnything)
{
    const std::size_t descriptors = open_descriptors();
    for (int i = 0; i < many_cycles; i++) {
        ASSERT_EQ(psp_init(), sOKAY) << "cycle " << i;
        ASSERT_NE(psp_getMem(8, PSP_THREAD_TAG, 1, nullptr, __FILE__, __LINE__), nullptr);
        psp_term();
        ASSERT_EQ(memory_in_use(), 0u) << "cycle " << i;
    }
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(Lifecycle, AStopReleasesWhatItsUsersForgot)
{
    ASSERT_EQ(psp_init(), sOKAY);
    const PSP_MEMTAG tag =
        psp_createTagEx(nullptr, 1, BLOCK_ALLOCATOR, nullptr, nullptr, __FILE__, __LINE__);
    ASSERT_NE(psp_getMem(100000, tag, 1, nullptr, __FILE__, __LINE__), nullptr);
    ASSERT_NE(psp_getMem(100000, PSP_THREAD_TAG, 1, nullptr, __FILE__, __LINE__), nullptr);
    ASSERT_NE(psp_getMem(100000, PSP_GLOBAL_TAG, 1, nullptr, __FILE__, __LINE__), nullptr);
    for (int i = 0; i < 3000; i++)
        ASSERT_NE(psp_syncCreate_check(i % 2 == 0 ? PSP_SEM_MUTEX : PSP_SEM_EVENT, __FILE__, i),
                  PSP_SEM_INVALID);
    psp_term(); // the fixture sees to the rest
}

// What a named global's delete callback sees in the middle of the stop.
Flags flags_in_stop;

void note_flags(void* /*data*/)
{
    flags_in_stop = read_flags();
}

TEST_F(Lifecycle, IsTerminatingOnlyWhileTheLastStopRuns)
{
    ASSERT_EQ(psp_init(), sOKAY);
    ASSERT_EQ(psp_init(), sOKAY);
    void* data = nullptr;
    flags_in_stop = {-1, -1, -1, -1, -1, -1};
    ASSERT_EQ(psp_globalGet("stop", 1, nullptr, note_flags, &data), sOKAY);
    EXPECT_EQ(psp_terminating, 0);
    psp_term();
    EXPECT_EQ(flags_in_stop.terminating, -1) << "torn down with a user left";
    EXPECT_EQ(psp_terminating, 0);
    psp_term();
    EXPECT_EQ(flags_in_stop.terminating, 1);
    EXPECT_EQ(flags_in_stop.inited, 1) << "the count falls after the work";
    EXPECT_EQ(psp_terminating, 0);
}

TEST_F(Lifecycle, AStopWithoutAStartOnlyTakesTheCountBelowZero)
{
    EXPECT_EQ(run_in_child([] {
                  psp_term();
                  EXPECT_EQ(psp_inited, -1);
                  psp_term();
                  EXPECT_EQ(psp_inited, -2);
                  EXPECT_EQ(psp_createTagEx(nullptr, 0, BLOCK_ALLOCATOR, nullptr, nullptr, __FILE__,
                                            __LINE__),
                            nullptr);
                  EXPECT_EQ(psp_getMem(1, PSP_THREAD_TAG, 1, nullptr, __FILE__, __LINE__), nullptr);
                  EXPECT_EQ(psp_init(), sOKAY);
                  EXPECT_EQ(psp_inited, -1);
                  EXPECT_EQ(make_mutex(), PSP_SEM_INVALID);
                  EXPECT_EQ(psp_init(), sOKAY);
                  EXPECT_EQ(psp_inited, 0);
                  EXPECT_EQ(make_mutex(), PSP_SEM_INVALID);
                  EXPECT_EQ(memory_in_use(), 0u);
                  EXPECT_EQ(psp_init(), sOKAY);
                  EXPECT_EQ(psp_inited, 1);
                  EXPECT_TRUE(library_works());
                  psp_term();
                  return 0;
              }),
              0);
}

TEST_F(Lifecycle, ServesUsersThatStartAndStopAtTheSameTime)
{
    constexpr int users = 4;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int user = 0; user < users; user++) {
        threads.emplace_back([&] {
            for (int i = 0; i < 50; i++) {
                if (psp_init() != sOKAY || std::atomic_ref<std::int32_t>(psp_inited).load() < 1)
                    failures++;
                void* const block = psp_getMem(50, PSP_THREAD_TAG, 1, nullptr, __FILE__, __LINE__);
                const PSP_SEM sem = make_mutex();
                if (block == nullptr || sem == PSP_SEM_INVALID)
                    failures++;
                psp_syncEnterExcl(sem);
                psp_syncExitExcl(sem);
                psp_term();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0);
}

// ---- What the start does to the process ----

TEST_F(ProcessSetUp, RaisesTheSoftLimitOfDescriptorsToTheHardOne)
{
    EXPECT_EQ(run_in_child([] {
                  rlimit limit{};
                  getrlimit(RLIMIT_NOFILE, &limit);
                  if (limit.rlim_max == RLIM_INFINITY || limit.rlim_max < 300)
                      limit.rlim_max = 300;
                  limit.rlim_cur = 256;
                  const rlim_t hard = limit.rlim_max;
                  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
                  EXPECT_EQ(psp_init(), sOKAY);
                  EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
                  EXPECT_EQ(limit.rlim_cur, hard);
                  EXPECT_EQ(limit.rlim_max, hard);
                  psp_term();
                  EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
                  EXPECT_EQ(limit.rlim_cur, hard);
                  return 0;
              }),
              0);
}

// Writes to a pipe that nobody reads.
int write_to_closed_pipe()
{
    int ends[2];
    if (pipe(ends) != 0)
        return -1;
    close(ends[0]);
    errno = 0;
    const bool refused = write(ends[1], "x", 1) == -1 && errno == EPIPE;
    close(ends[1]);
    return refused ? 0 : 1;
}

TEST_F(ProcessSetUp, LetsAProcessSurviveAWriteToAClosedPipe)
{
    EXPECT_EQ(run_in_child([] {
                  signal(SIGPIPE, SIG_DFL);
                  return write_to_closed_pipe();
              }),
              128 + SIGPIPE);
    EXPECT_EQ(run_in_child([] {
                  signal(SIGPIPE, SIG_DFL);
                  EXPECT_EQ(psp_init(), sOKAY);
                  EXPECT_EQ(write_to_closed_pipe(), 0);
                  psp_term();
                  return write_to_closed_pipe();
              }),
              0);
}

TEST_F(ProcessSetUp, AsksTheSystemWhichClockToUse)
{
    const std::int32_t before = gUseMonotonicClock;
    gUseMonotonicClock = -1;
    ASSERT_EQ(psp_init(), sOKAY);
    EXPECT_EQ(gUseMonotonicClock, static_cast<std::int32_t>(sysconf(_SC_CLOCK_SELECTION)));
    psp_term();
    EXPECT_EQ(gUseMonotonicClock, static_cast<std::int32_t>(sysconf(_SC_CLOCK_SELECTION)));
    gUseMonotonicClock = before;
}

TEST_F(ProcessSetUp, HappensOnlyAtTheFirstStart)
{
    EXPECT_EQ(run_in_child([] {
                  EXPECT_EQ(psp_init(), sOKAY);
                  signal(SIGPIPE, SIG_DFL);
                  gUseMonotonicClock = -7;
                  EXPECT_EQ(psp_init(), sOKAY);
                  EXPECT_EQ(signal(SIGPIPE, SIG_IGN), SIG_DFL);
                  EXPECT_EQ(gUseMonotonicClock, -7);
                  psp_term();
                  psp_term();
                  return 0;
              }),
              0);
}

// ---- One-way switches ----

TEST_F(Switches, ReadOnlyIsSetBeforeTheStartAndOutlastsTheStop)
{
    EXPECT_EQ(run_in_child([] {
                  psp_rdonly();
                  EXPECT_EQ(psp_readonly, 1);
                  EXPECT_EQ(psp_diskless, 0);
                  EXPECT_EQ(psp_init(), sOKAY);
                  EXPECT_EQ(psp_readonly, 1);
                  psp_rdonly();
                  EXPECT_EQ(psp_readonly, 1);
                  psp_term();
                  EXPECT_EQ(psp_init(), sOKAY);
                  EXPECT_EQ(psp_readonly, 1);
                  psp_term();
                  EXPECT_EQ(psp_readonly, 1);
                  EXPECT_EQ(psp_diskless, 0);
                  return 0;
              }),
              0);
}

TEST_F(Switches, DisklessIsSetBeforeTheStartAndOutlastsTheStop)
{
    EXPECT_EQ(run_in_child([] {
                  psp_nodisk();
                  EXPECT_EQ(psp_diskless, 1);
                  EXPECT_EQ(psp_readonly, 0);
                  EXPECT_EQ(psp_init(), sOKAY); // standard output is no disk
                  EXPECT_EQ(psp_diskless, 1);
                  psp_term();
                  EXPECT_EQ(psp_init(), sOKAY);
                  EXPECT_EQ(psp_diskless, 1);
                  psp_term();
                  EXPECT_EQ(psp_diskless, 1);
                  EXPECT_EQ(psp_readonly, 0);
                  return 0;
              }),
              0);
}

TEST_F(Switches, GuardTheOpeningOfFiles)
{
    const TempDir dir;
    const std::string path = dir / "file";
    write_file(path, "old");
    EXPECT_EQ(run_in_child([&] {
                  EXPECT_EQ(psp_init(), sOKAY);
                  psp_rdonly();
                  EXPECT_EQ(psp_fopen((dir / "new").c_str(), "w", PSP_FILE_MODE_UTF8), nullptr);
                  const PSP_FILE_STREAM stream = psp_fopen(path.c_str(), "r", PSP_FILE_MODE_UTF8);
                  EXPECT_NE(stream, nullptr);
                  psp_fclose(stream);
                  psp_nodisk();
                  EXPECT_EQ(psp_fopen(path.c_str(), "r", PSP_FILE_MODE_UTF8), nullptr);
                  psp_term();
                  return 0;
              }),
              0);
    EXPECT_FALSE(file_exists(dir / "new"));
}

// ---- The critical section ----

TEST_F(CriticalSection, WorksBeforeTheStartAndAfterTheStop)
{
    EXPECT_EQ(psp_enterCritSec(), sOKAY);
    psp_exitCritSec();
    ASSERT_EQ(psp_init(), sOKAY);
    EXPECT_EQ(psp_enterCritSec(), sOKAY);
    psp_exitCritSec();
    psp_term();
    EXPECT_EQ(psp_enterCritSec(), sOKAY);
    psp_exitCritSec();
}

TEST_F(CriticalSection, LetsOneThreadInAtATime)
{
    int plain = 0; // a lost update, or a report of the thread sanitizer, tells on a missing lock
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; thread++) {
        threads.emplace_back([&] {
            for (int i = 0; i < 2000; i++) {
                psp_enterCritSec();
                plain++;
                psp_exitCritSec();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(plain, 8000);
}

TEST_F(CriticalSection, HoldsBackStartAndStop)
{
    std::atomic<int> step{0};
    psp_enterCritSec();
    std::thread starter([&] {
        psp_init();
        step = 1;
    });
    sleep_for(milliseconds(20));
    EXPECT_EQ(step, 0);
    EXPECT_EQ(psp_inited, 0);
    psp_exitCritSec();
    starter.join();
    EXPECT_EQ(step, 1);
    EXPECT_EQ(psp_inited, 1);

    psp_enterCritSec();
    std::thread stopper([&] {
        psp_term();
        step = 2;
    });
    sleep_for(milliseconds(20));
    EXPECT_EQ(step, 1);
    EXPECT_EQ(psp_inited, 1);
    psp_exitCritSec();
    stopper.join();
    EXPECT_EQ(psp_inited, 0);
}

// ---- Version, errno, messages ----

TEST(Version, IsToldInThreeNumbers)
{
    std::int16_t major = -1;
    std::int16_t minor = -1;
    std::int16_t build = -1;
    psp_version(&major, &minor, &build);
    EXPECT_EQ(major, 14);
    EXPECT_EQ(minor, 1);
    EXPECT_EQ(build, 3222);
}

TEST(Version, SkipsEveryNull)
{
    for (unsigned wanted = 0; wanted < 8; wanted++) {
        std::int16_t number[3] = {-1, -1, -1};
        psp_version((wanted & 1) != 0 ? &number[0] : nullptr,
                    (wanted & 2) != 0 ? &number[1] : nullptr,
                    (wanted & 4) != 0 ? &number[2] : nullptr);
        EXPECT_EQ(number[0], (wanted & 1) != 0 ? 14 : -1);
        EXPECT_EQ(number[1], (wanted & 2) != 0 ? 1 : -1);
        EXPECT_EQ(number[2], (wanted & 4) != 0 ? 3222 : -1);
    }
}

TEST(Errno, IsTheOneOfTheCallingThread)
{
    errno = ENOTDIR;
    EXPECT_EQ(psp_errno(), ENOTDIR);
    std::thread([] {
        errno = EXDEV;
        EXPECT_EQ(psp_errno(), EXDEV);
    }).join();
    errno = ENOTDIR;
    EXPECT_EQ(psp_errno(), ENOTDIR);
    errno = 0;
    EXPECT_EQ(psp_errno(), 0);
}

TEST(ErrPrint, WritesALineToTheStandardOutputOfTheCLibrary)
{
    CapturedFd out(1);
    psp_errPrint("100% of a message");
    psp_errPrint("");
    psp_errPrint(nullptr);
    EXPECT_EQ(out.finish(), "100% of a message\n\n");
}

TEST_F(Lifecycle, ErrPrintGoesPastTheOutputStacks)
{
    const TempDir dir;
    ASSERT_EQ(psp_init(), sOKAY);
    ASSERT_EQ(psp_stdout_openEx(nullptr, (dir / "out").c_str()), sOKAY);
    CapturedFd out(1);
    psp_errPrint("direct");
    EXPECT_EQ(out.finish(), "direct\n");
    psp_term();
    EXPECT_EQ(read_file(dir / "out"), "");
}

// ---- Return codes ----

struct Code {
    const char* name;
    std::int64_t value;
};

// clang-format off
constexpr Code codes[] = {
    {"sOKAY",                   0},
    {"sNOTFOUND",           10000},
    {"sDUPLICATE",          10001},
    {"sTIMEOUT",            10002},
    {"sNEEDDATA",           10008},
    {"sCHILD",              10038},
    {"eNOMEMORY",          -10000},
    {"eNOTIMPLEMENTED",    -10020},
    {"eINVNULLARG",        -10022},
    {"eFILEOPEN",          -10029},
    {"eBADREAD",           -10037},
    {"eBADWRITE",          -10038},
    {"eRANGE",             -10039},
    {"eINVVARINT",         -10052},
    {"eEOD",               -10072},
    {"eINVUNICODE",        -10074},
    {"eUNAVAIL",           -10092},
    {"eINVFILE",           -12056},
    {"eINVSTRING",         -12060},
    {"ePSP_FAILURE",       -14000},
    {"ePSP_MUTEX_FAILURE", -14001},
    {"ePSP_NOSOURCE",      -14006},
    {"ePSP_NODEST",        -14007},
    {"eTX_TRUNCATED",      -18001},
};

constexpr Code library_codes[] = {
#define ROW(id, value, text) {#id, id},
    ZYN_RETCODE_LIST(ROW)
#undef ROW
};
// clang-format on

TEST(ReturnCodes, HaveTheirNamesAndValues)
{
    ASSERT_EQ(std::size(library_codes), std::size(codes));
    for (std::size_t i = 0; i < std::size(codes); i++) {
        EXPECT_STREQ(library_codes[i].name, codes[i].name);
        EXPECT_EQ(library_codes[i].value, codes[i].value) << codes[i].name;
    }
}

TEST(ReturnCodes, TellStatusFromErrorByTheirSign)
{
    for (const Code& code : library_codes) {
        if (code.name[0] == 's')
            EXPECT_GE(code.value, 0) << code.name;
        else
            EXPECT_LT(code.value, 0) << code.name;
    }
    static_assert(sizeof(ZYN_RETCODE) == 4 && ZYN_RETCODE(-1) < 0);
}

} // namespace
