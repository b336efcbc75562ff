// Threads, synchronisation objects and threads' own memory with every call of the system failing in
// every way.
#include "support/call_faults.h"

#include "psp/core.h"
#include "psp/fileutil.h"
#include "psp/module.h"
#include "psp/output.h"
#include "psp/path.h"
#include "psp/sync.h"
#include "psp/thread.h"
#include "psp/tmpdir.h"

#include <csignal>
#include <string>
#include <thread>

using namespace psptest;

namespace {

constexpr std::uint32_t stacksize = 1 << 20;
constexpr std::int32_t priority = 3;

ZYN_RETCODE seven(void*)
{
    return 7;
}

// A thread that may be running, an event, and files to work on.
struct Threads {
    Threads()
    {
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        write_file("src", "text");
        write_file("dest", "text");
        unsetenv("ZYN_TMPDIR");
        psp_setTmpDir(dir.c_str());
        release(psp_tmpdir(PSP_GLOBAL_TAG), PSP_GLOBAL_TAG); // chosen now
    }
    ~Threads()
    {
        if (running)
            psp_threadJoin(&thread);
        psp_setTmpDir(nullptr);
        Fault::clear();
    }
    Threads(const Threads&) = delete;
    Threads& operator=(const Threads&) = delete;

    long begin(std::uint32_t size, std::int32_t prio)
    {
        if (running)
            join();
        const ZYN_RETCODE rc = psp_threadBeginEx(seven, size, nullptr, &thread, prio, "t");
        running = rc == sOKAY;
        return rc;
    }
    long join()
    {
        if (!running)
            begin(0, 0);
        const ZYN_RETCODE rc = psp_threadJoin(&thread);
        running = running && rc == ePSP_FAILURE;
        return rc;
    }
    // Makes and deletes an object: 1 when there was one.
    static long make(std::int16_t type)
    {
        const PSP_SEM sem = psp_syncCreate_check(type, __FILE__, __LINE__);
        psp_syncDelete(sem);
        return sem != PSP_SEM_INVALID;
    }
    // Makes an event that must work: what a wait of no time gives while it is reset.
    static long use_event(std::uint32_t millisecs)
    {
        const PSP_SEM event = psp_syncCreate_check(PSP_SEM_EVENT, __FILE__, __LINE__);
        EXPECT_EQ(psp_syncWait(event, 0), sOKAY);
        psp_syncStart(event);
        const ZYN_RETCODE rc = psp_syncWait(event, millisecs);
        psp_syncResume(event);
        EXPECT_EQ(psp_syncWait(event, 0), sOKAY);
        psp_syncDelete(event);
        return rc;
    }
    static long wait_for_condition()
    {
        pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
        pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
        pthread_mutex_lock(&mutex);
        const ZYN_RETCODE rc = psp_posix_cond_timedwait(&cond, &mutex, 0);
        pthread_mutex_unlock(&mutex);
        return rc;
    }
    // In a thread that has no tag yet.
    template <class Body>
    static long in_new_thread(Body body)
    {
        long result = 0;
        std::thread([&] { result = body(); }).join();
        return result;
    }

    TempDir dir;
    InDirectory here{dir.path()};
    sigset_t mask;
    psp_thread_t thread{};
    bool running = false;
};

using ThreadRow = Row<Threads>;

// ---- Columns ----

void mask_kept(Threads& w, const Failure*)
{
    sigset_t now;
    pthread_sigmask(SIG_SETMASK, nullptr, &now);
    for (int signal = 1; signal < SIGRTMAX; signal++)
        ASSERT_EQ(sigismember(&now, signal), sigismember(&w.mask, signal)) << signal;
}

void not_running(Threads& w, const Failure* failure)
{
    EXPECT_EQ(w.running, failure == nullptr);
    mask_kept(w, failure);
}

bool is_timeout(const Failure& failure)
{
    return failure.error == ETIMEDOUT || failure.error == ETIME;
}

// An event's wait goes on after everything but a timeout.
bool waits_for_ever(const Failure& failure)
{
    return failure.forever && !is_timeout(failure);
}

// With the first call a thread's tag is new. Later ones find it, and what it held is gone then.
bool with_a_tag(const Failure& failure)
{
    return failure.n > 1;
}

long begin_with_all(Threads& w)
{
    return w.begin(stacksize, priority);
}

template <std::int16_t type>
long make(Threads&)
{
    return Threads::make(type);
}

long use_event(Threads&)
{
    return Threads::use_event(1);
}

long wait_for_condition(Threads&)
{
    return Threads::wait_for_condition();
}

template <long (*body)()>
long in_new_thread(Threads&)
{
    return Threads::in_new_thread(body);
}

// ---- What needs the tag of the thread ----

long allocate()
{
    return get(8, PSP_THREAD_TAG) != nullptr;
}

long find_and_allocate()
{
    release(get(8, PSP_THREAD_TAG), PSP_THREAD_TAG);
    return get(8, PSP_THREAD_TAG) != nullptr;
}

long copy_file()
{
    return psp_fileCopy("src", "dest");
}

long compare_files()
{
    return psp_fileCmp("src", "dest");
}

long create_directories()
{
    const ZYN_RETCODE rc = psp_dirCreateAll("p/q");
    psp_dirRemove("p/q");
    psp_dirRemove("p");
    return rc;
}

long join_path()
{
    const char* path = psp_fullpathEx("name", PSP_GLOBAL_TAG);
    release(path, PSP_THREAD_TAG);
    return path != nullptr;
}

long copy_tmpdir()
{
    const char* path = psp_tmpdir(PSP_THREAD_TAG);
    release(path, PSP_THREAD_TAG);
    return path != nullptr;
}

long load_module()
{
    PSP_MOD_CTX* module = nullptr;
    return psp_load("of no such name", &module);
}

long log_line()
{
    CapturedFd out(1);
    return psp_log("line\n");
}

long create_log()
{
    const ZYN_RETCODE rc = psp_log_createEx(nullptr, ".", "log");
    if (rc == sOKAY)
        psp_log_closeEx(nullptr);
    return rc;
}

constexpr ThreadRow tag_row(const char* name, long (*run)(Threads&), long success,
                            long (*expected)(const Failure&))
{
    return {name,      "pthread_setspecific", run, success, expected, unsaid, nullptr, nullptr,
            with_a_tag};
}

// clang-format off
const ThreadRow rows[] = {
    // ---- Threads ----
    {"psp_threadBegin", "pthread_create", [](Threads& w) { return w.begin(0, 0); },
     sOKAY, always<ePSP_FAILURE>, unsaid, not_running},
    {"psp_threadBeginEx", "pthread_create", begin_with_all, sOKAY, always<ePSP_FAILURE>, unsaid,
     not_running},
    {"psp_threadBeginEx", "pthread_attr_init", begin_with_all, sOKAY, always<sOKAY>, unsaid,
     mask_kept},
    {"psp_threadBeginEx", "pthread_attr_setstacksize", begin_with_all, sOKAY, always<sOKAY>, unsaid,
     mask_kept},
    {"psp_threadBeginEx", "pthread_attr_setinheritsched", begin_with_all, sOKAY, always<sOKAY>,
     unsaid, mask_kept},
    {"psp_threadBeginEx", "pthread_attr_getschedparam", begin_with_all, sOKAY, always<sOKAY>,
     unsaid, mask_kept},
    {"psp_threadBeginEx", "pthread_attr_setschedparam", begin_with_all, sOKAY, always<sOKAY>,
     unsaid, mask_kept},
    {"psp_threadBeginEx", "pthread_attr_destroy", begin_with_all, sOKAY, always<sOKAY>, unsaid,
     mask_kept},
    {"psp_threadJoin", "pthread_join", [](Threads& w) { return w.join(); },
     7, always<ePSP_FAILURE>, unsaid,
     [](Threads& w, const Failure* f) { EXPECT_EQ(w.running, f != nullptr); }},

    // ---- Objects: what the system says of them counts for nothing ----
    {"psp_syncCreate mutex", "pthread_mutex_init", make<PSP_SEM_MUTEX>, 1, always<1>, unsaid},
    {"psp_createTagEx", "pthread_mutex_init",
     [](Threads&) -> long {
         const PSP_MEMTAG tag = make_tag(BLOCK_ALLOCATOR, 1);
         const bool works = get(8, tag) != nullptr;
         destroy_tag(tag);
         return works;
     },
     1, always<1>, unsaid},
    {"psp_fileLock", "pthread_mutex_init",
     [](Threads&) -> long {
         const Handle handle("src");
         const ZYN_RETCODE rc = psp_fileLock(handle);
         psp_fileUnlock(handle);
         return rc;
     },
     sOKAY, always<sOKAY>, unsaid},
    {"psp_syncCreate event", "pthread_mutex_init", make<PSP_SEM_EVENT>, 1, always<1>, unsaid},
    {"psp_syncCreate event", "pthread_cond_init", make<PSP_SEM_EVENT>, 1, always<1>, unsaid},
    {"psp_syncCreate event", "pthread_condattr_init", use_event, sTIMEOUT, always<sTIMEOUT>,
     unsaid},
    {"psp_syncCreate event", "pthread_condattr_setclock", use_event, sTIMEOUT, always<sTIMEOUT>,
     unsaid},

    // ---- Waits ----
    {"psp_syncWait", "pthread_cond_timedwait", use_event, sTIMEOUT, always<sTIMEOUT>, unsaid,
     nullptr, nullptr, waits_for_ever},
    {"psp_syncWait", "clock_gettime", use_event, sTIMEOUT, always<sTIMEOUT>, unsaid},
    {"psp_posix_cond_timedwait", "pthread_cond_timedwait", wait_for_condition, sTIMEOUT,
     [](const Failure& f) -> long { return is_timeout(f) ? sTIMEOUT : sOKAY; }, unsaid},
    {"psp_posix_cond_timedwait", "clock_gettime", wait_for_condition, sTIMEOUT, always<sTIMEOUT>,
     unsaid},

    // ---- The tag of a thread ----
    {"psp_getMem finding a tag", "pthread_setspecific", in_new_thread<find_and_allocate>,
     1, [](const Failure& f) -> long { return f.n < 3 && !f.forever; }, unsaid},
    tag_row("psp_getMem", in_new_thread<allocate>, 1, always<0>),
    tag_row("psp_fileCopy", in_new_thread<copy_file>, sOKAY, always<ePSP_FAILURE>),
    tag_row("psp_fileCmp", in_new_thread<compare_files>, sOKAY, always<eNOMEMORY>),
    tag_row("psp_dirCreateAll", in_new_thread<create_directories>, sOKAY, always<eNOMEMORY>),
    tag_row("psp_fullpathEx", in_new_thread<join_path>, 1, always<0>),
    tag_row("psp_tmpdir", in_new_thread<copy_tmpdir>, 1, always<0>),
    tag_row("psp_load", in_new_thread<load_module>, sNOTFOUND, always<eNOMEMORY>),
    tag_row("psp_log", in_new_thread<log_line>, 5, always<0>),
    tag_row("psp_log_createEx", in_new_thread<create_log>, sOKAY, always<eNOMEMORY>),
};
// clang-format on

class ThreadCalls : public FaultTest, public ::testing::WithParamInterface<ThreadRow> {};

TEST_P(ThreadCalls, FailAsToldAndNothingIsLost)
{
    drive(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Every, ThreadCalls, ::testing::ValuesIn(rows), name_of_row<Threads>);

// ---- Attributes that cannot be made leave the defaults, not what lay on the stack ----

class Attributes : public FaultTest {
  protected:
    // Fills the stack that the next calls use.
    [[gnu::noinline]] static void soil_stack()
    {
        volatile unsigned char bytes[16384];
        for (volatile unsigned char& byte : bytes)
            byte = 0xA5;
    }
};

bool defaults = false;

TEST_F(Attributes, OfAThreadThatCannotBeMadeAreTheDefaults)
{
    Fault::replace(
        "pthread_create",
        +[](pthread_t*, const pthread_attr_t* attr, void* (*)(void*), void*) -> int {
            defaults = holds(attr, sizeof *attr, 0);
            return EAGAIN;
        });
    const Fault fault("pthread_attr_init", 1);
    psp_thread_t thread{};
    defaults = false;
    soil_stack();
    EXPECT_EQ(psp_threadBeginEx(seven, 0, nullptr, &thread, 0, nullptr), ePSP_FAILURE);
    EXPECT_TRUE(defaults);
    EXPECT_EQ(fault.failures(), 1);
}

TEST_F(Attributes, OfAnEventThatCannotBeMadeAreTheDefaults)
{
    Fault::replace(
        "pthread_condattr_setclock", +[](pthread_condattr_t*, clockid_t) { return 0; });
    Fault::replace(
        "pthread_cond_init", +[](pthread_cond_t*, const pthread_condattr_t* attr) {
            defaults = holds(attr, sizeof *attr, 0);
            return 0;
        });
    const Fault fault("pthread_condattr_init", 1);
    defaults = false;
    soil_stack();
    EXPECT_NE(psp_syncCreate_check(PSP_SEM_EVENT, __FILE__, __LINE__), PSP_SEM_INVALID);
    EXPECT_TRUE(defaults);
    EXPECT_EQ(fault.failures(), 1);
}

TEST(ThreadCallsTable, HasARowForEveryCall)
{
    EXPECT_EQ(calls_in(rows), calls_for(in_threads));
}

} // namespace
