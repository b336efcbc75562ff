// Start and stop of the library when the system refuses: every step of a start that can fail, the
// limits and clocks that the system reports, the order of the calls.
#include "fault/faults.h"
#include "support/psp_test.h"

#include "psp.h"
#include "psp_mem_data_int.h"
#include "psp_sync_int.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <sys/resource.h>
#include <sys/syscall.h>

using namespace psptest;

extern "C" {
PSP_SEM __real_psp_syncCreate_check(int16_t type, const char* file, int32_t line);
int __real_pthread_key_create(pthread_key_t* key, void (*end)(void*));
int __real_getrlimit(int what, struct rlimit* limit);
int __real_setrlimit(int what, const struct rlimit* limit);
long __real_sysconf(int name);
}

namespace {

// For tests that fail or replace calls: whatever the test did, the next one has the real ones.
class StartFault : public RawTest {
  protected:
    void SetUp() override
    {
        RawTest::SetUp();
        heap_blocks_ = live_heap_blocks();
    }
    void TearDown() override
    {
        Fault::clear();
        EXPECT_EQ(live_heap_blocks(), heap_blocks_);
        RawTest::TearDown();
    }

    long heap_blocks_ = 0;
};

// What a start that failed leaves: nothing, and the next one succeeds.
void expect_clean_and_startable()
{
    Fault::clear();
    EXPECT_EQ(psp_inited, 0);
    EXPECT_EQ(psp_terminating, 0);
    EXPECT_FALSE(psp_sync_inited);
    EXPECT_EQ(memory_in_use(), 0u);
    EXPECT_EQ(psp_syncCreate_check(PSP_SEM_MUTEX, __FILE__, __LINE__), PSP_SEM_INVALID);
    std::thread([] { // the critical section is free, for any thread
        psp_enterCritSec();
        psp_exitCritSec();
    })
        .join();
    ASSERT_EQ(psp_init(), sOKAY);
    EXPECT_EQ(psp_inited, 1);
    EXPECT_NE(psp_syncCreate_check(PSP_SEM_MUTEX, __FILE__, __LINE__), PSP_SEM_INVALID);
    psp_term();
    EXPECT_EQ(memory_in_use(), 0u);
}

// ---- Steps that fail ----

TEST_F(StartFault, WithoutAThreadSpecificKeyIsOutOfMemory)
{
    for (const int error : {EAGAIN, ENOMEM}) {
        Fault fault("pthread_key_create", 1, false, error);
        EXPECT_EQ(psp_init(), eNOMEMORY);
        EXPECT_EQ(fault.failures(), 1);
        expect_clean_and_startable();
    }
}

TEST_F(StartFault, WithoutAMutexTellsWhichLayerLacksIt)
{
    for (const bool forever : {false, true}) {
        int n = 1;
        for (bool met = true; met; n++) {
            Fault fault("psp_syncCreate_check", n, forever);
            const ZYN_RETCODE rc = psp_init();
            met = fault.failures() > 0;
            if (n <= 4) {
                EXPECT_EQ(rc, ePSP_FAILURE) << "mutex " << n << " of the memory layer";
            } else if (n == 5) {
                EXPECT_EQ(rc, ePSP_MUTEX_FAILURE) << "the registry's";
            } else if (!forever) {
                EXPECT_EQ(rc, sOKAY) << "the output works without its own, mutex " << n;
            }
            if (rc == sOKAY)
                psp_term();
            expect_clean_and_startable();
        }
        EXPECT_GT(n, 8) << "four of memory, the registry's, three of the output";
    }
}

TEST_F(StartFault, WithoutTheMemoryMutexesDeletesThoseThatItGot)
{
    for (int n = 1; n <= 4; n++) {
        for (int cycle = 0; cycle < 3; cycle++) {
            Fault fault("psp_syncCreate_check", n);
            const Fault made("pthread_mutex_init");
            const Fault destroyed("pthread_mutex_destroy");
            EXPECT_EQ(psp_init(), ePSP_FAILURE);
            EXPECT_EQ(fault.calls(), 4) << "all four are tried";
            EXPECT_EQ(made.calls(), 3);
            EXPECT_EQ(destroyed.calls(), 3);
        }
        Fault::clear();
        ASSERT_EQ(psp_init(), sOKAY);
        EXPECT_EQ(tagGlobal->t_sem, &sem_table[0].entry[0]);
        EXPECT_EQ(static_list_tag.t_sem, &sem_table[0].entry[3]);
        psp_term();
    }
}

TEST_F(StartFault, CountsAsBeforeWhenItFailsAgainAndAgain)
{
    for (int cycle = 0; cycle < PTHREAD_KEYS_MAX + 10; cycle++) {
        Fault fault("psp_syncCreate_check", 1 + cycle % 5);
        ASSERT_NE(psp_init(), sOKAY);
        ASSERT_EQ(psp_inited, 0);
    }
    expect_clean_and_startable();
}

// ---- The order of things ----

std::string trace; // one letter a call

int trace_key_create(pthread_key_t* key, void (*end)(void*))
{
    trace += end == nullptr ? 'k' : 'K'; // nothing may run at the end of a thread
    return __real_pthread_key_create(key, end);
}

PSP_SEM trace_sync_create(int16_t type, const char* file, int32_t line)
{
    trace += type == PSP_SEM_MUTEX ? 'm' : '?';
    return __real_psp_syncCreate_check(type, file, line);
}

int trace_getrlimit(int what, struct rlimit* limit)
{
    trace += what == RLIMIT_NOFILE ? 'g' : '?';
    return __real_getrlimit(what, limit);
}

int trace_setrlimit(int what, const struct rlimit* limit)
{
    trace += what == RLIMIT_NOFILE ? 's' : '?';
    return __real_setrlimit(what, limit);
}

long trace_sysconf(int name)
{
    if (name == _SC_CLOCK_SELECTION)
        trace += 'c';
    return __real_sysconf(name);
}

TEST_F(StartFault, TakesItsStepsInOrder)
{
    trace.clear();
    Fault::replace("pthread_key_create", trace_key_create);
    Fault::replace("psp_syncCreate_check", trace_sync_create);
    Fault::replace("getrlimit", trace_getrlimit);
    Fault::replace("setrlimit", trace_setrlimit);
    Fault::replace("sysconf", trace_sysconf);
    ASSERT_EQ(psp_init(), sOKAY);
    // Key, four mutexes of memory, the registry's, limit, clock, then output with its own mutexes.
    EXPECT_EQ(trace.substr(0, 10), "kmmmmmgscm");
    EXPECT_EQ(trace.find_first_not_of('m', 10), std::string::npos) << trace;
    const std::string first = trace;
    ASSERT_EQ(psp_init(), sOKAY);
    EXPECT_EQ(trace, first) << "a second user takes no step";
    psp_term();
    psp_term();
    EXPECT_EQ(trace, first);
}

// The names of the files that were closed, in order.
std::vector<std::string> closed;

int trace_close(int fd)
{
    char path[512] = "";
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    if (readlink(link.c_str(), path, sizeof path - 1) > 0)
        closed.push_back(std::string(path).substr(std::string(path).rfind('/') + 1));
    return static_cast<int>(syscall(SYS_close, fd));
}

void note_global_end(void* /*data*/)
{
    closed.push_back("the named global");
}

TEST_F(StartFault, StopEndsTheLogThenTheOutputThenTheGlobals)
{
    const TempDir dir;
    ASSERT_EQ(psp_init(), sOKAY);
    ASSERT_EQ(psp_stdout_openEx(nullptr, (dir / "out").c_str()), sOKAY);
    ASSERT_EQ(psp_log_openEx(nullptr, (dir / "log").c_str()), sOKAY);
    void* data = nullptr;
    ASSERT_EQ(psp_globalGet("last", 1, nullptr, note_global_end, &data), sOKAY);
    closed.clear();
    Fault::replace("close", trace_close);
    psp_term();
    Fault::clear();
    EXPECT_EQ(closed, (std::vector<std::string>{"log", "out", "the named global"}));
}

// ---- The limit of descriptors ----

struct LimitCase {
    rlim_t soft;
    rlim_t hard;
    rlim_t expected_soft;
};

rlimit reported;            // by the system
std::vector<rlimit> stored; // by the library

int report_limit(int what, struct rlimit* limit)
{
    EXPECT_EQ(what, RLIMIT_NOFILE);
    *limit = reported;
    return 0;
}

int store_limit(int what, const struct rlimit* limit)
{
    EXPECT_EQ(what, RLIMIT_NOFILE);
    stored.push_back(*limit);
    return 0;
}

TEST_F(StartFault, RaisesTheLimitOfDescriptors)
{
    // clang-format off
    const LimitCase cases[] = {
        {             0, RLIM_INFINITY,          1024},
        {           256, RLIM_INFINITY,          1024},
        {          1023, RLIM_INFINITY,          1024},
        {          1024, RLIM_INFINITY,          1024},
        {          1025, RLIM_INFINITY,          1025},
        {          4096, RLIM_INFINITY,          4096},
        { RLIM_INFINITY, RLIM_INFINITY, RLIM_INFINITY},
        {          1024,         65536,         65536},
        {           256,           512,           512},
        {             0,             1,             1},
        {         65536,         65536,         65536},
        {           100,           100,           100},
        {             1, 1'000'000'000, 1'000'000'000},
    };
    // clang-format on
    Fault::replace("getrlimit", report_limit);
    Fault::replace("setrlimit", store_limit);
    for (const LimitCase& limit : cases) {
        reported = {limit.soft, limit.hard};
        stored.clear();
        ASSERT_EQ(psp_init(), sOKAY);
        psp_term();
        ASSERT_EQ(stored.size(), 1u) << "written back in every case";
        EXPECT_EQ(stored[0].rlim_cur, limit.expected_soft)
            << "soft " << limit.soft << ", hard " << limit.hard;
        EXPECT_EQ(stored[0].rlim_max, limit.hard);
    }
}

// ---- The clock ----

long answer_of_sysconf;

long answer_clock_selection(int name)
{
    return name == _SC_CLOCK_SELECTION ? answer_of_sysconf : __real_sysconf(name);
}

TEST_F(StartFault, StoresWhatTheSystemSaysOfItsClocks)
{
    const std::int32_t before = gUseMonotonicClock;
    Fault::replace("sysconf", answer_clock_selection);
    for (const long answer : {-1L, 0L, 1L, 200112L, 200809L}) {
        answer_of_sysconf = answer;
        ASSERT_EQ(psp_init(), sOKAY);
        EXPECT_EQ(gUseMonotonicClock, answer);
        psp_term();
        EXPECT_EQ(gUseMonotonicClock, answer) << "a stop leaves it";
    }
    gUseMonotonicClock = before;
}

} // namespace
