// Synchronisation objects and threads when the system refuses, and the exact deadlines of timed
// waits on a clock that the test sets.
#include "support/fault_test.h"

#include "psp/sync.h"
#include "psp/thread.h"
#include "psp/time.h"
#include "psp_sync_int.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <thread>
#include <vector>

using namespace psptest;

extern "C" int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attr,
                                     void* (*start)(void*), void* arg);

namespace {

class SyncFault : public ClockFaultTest {};
class TimedWait : public SyncFault {};
class ThreadFault : public SyncFault {};

PSP_SEM make(std::int16_t type)
{
    return psp_syncCreate_check(type, __FILE__, __LINE__);
}

// ---- A clock that the test sets, and waits that only note their deadline ----

timespec set_time;
std::vector<clockid_t> clocks_read;

int read_set_clock(clockid_t clock, timespec* now)
{
    clocks_read.push_back(clock);
    *now = set_time;
    set_time.tv_sec++; // every look at the clock finds it one second later
    return 0;
}

std::vector<timespec> deadlines;
std::vector<int> results; // of the waits to come
PSP_SEM signal_with_last = PSP_SEM_INVALID;

int note_wait(pthread_cond_t* /*cond*/, pthread_mutex_t* /*mutex*/, const timespec* until)
{
    deadlines.push_back(*until);
    const std::size_t call = deadlines.size() - 1;
    if (call + 1 == results.size() && signal_with_last != PSP_SEM_INVALID)
        signal_with_last->obj.e.flag = 1;
    return call < results.size() ? results[call] : ETIMEDOUT;
}

void watch_waits(timespec now, std::vector<int> to_come)
{
    set_time = now;
    results = std::move(to_come);
    clocks_read.clear();
    deadlines.clear();
    signal_with_last = PSP_SEM_INVALID;
    Fault::replace("clock_gettime", read_set_clock);
    Fault::replace("pthread_cond_timedwait", note_wait);
}

struct DeadlineCase {
    timespec now;
    std::uint32_t millisecs;
    timespec deadline;
};

TEST_F(TimedWait, EndsAtTheExactDeadline)
{
    // clang-format off
    const DeadlineCase cases[] = {
        {{100,         0},          0, {    100,         0}},
        {{100, 999999999},          0, {    100, 999999999}},
        {{100,         0},          1, {    100,   1000000}},
        {{100,         0},        999, {    100, 999000000}},
        {{100,         0},       1000, {    101,         0}},
        {{100,         0},       1500, {    101, 500000000}},
        {{100, 123456789},       2345, {    102, 468456789}},
        {{100, 600000000},        500, {    101, 100000000}},
        {{100, 999999999},        999, {    101, 998999999}},
        // A whole second in the nanoseconds is carried only when something is left over.
        {{100, 500000000},        500, {    100, 1000000000}},
        {{100,   1000000},       5999, {    105, 1000000000}},
        {{100, 500000001},        500, {    101,         1}},
        {{100, 499999999},        500, {    100, 999999999}},
        {{  7,         0}, 4294967295, {4294974, 295000000}},
        {{  7, 999999999}, 4294967294, {4294975, 293999999}},
    };
    // clang-format on
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    for (const DeadlineCase& wait : cases) {
        watch_waits(wait.now, {ETIMEDOUT});
        EXPECT_EQ(psp_posix_cond_timedwait(&cond, &mutex, wait.millisecs), sTIMEOUT);
        ASSERT_EQ(deadlines.size(), 1u);
        EXPECT_EQ(deadlines[0].tv_sec, wait.deadline.tv_sec) << wait.millisecs;
        EXPECT_EQ(deadlines[0].tv_nsec, wait.deadline.tv_nsec) << wait.millisecs;
    }
}

TEST_F(TimedWait, ReadsTheChosenClockOnce)
{
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    for (const std::int32_t choice : {-1, 0, 1, 200809}) {
        gUseMonotonicClock = choice;
        watch_waits({5, 5}, {0});
        psp_posix_cond_timedwait(&cond, &mutex, 1);
        ASSERT_EQ(clocks_read.size(), 1u);
        EXPECT_EQ(clocks_read[0], choice > 0 ? CLOCK_MONOTONIC : CLOCK_REALTIME);
    }
}

TEST_F(TimedWait, TellsTimeoutFromEverythingElse)
{
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    for (const int result : {0, ETIMEDOUT, ETIME, EINVAL, EPERM, EINTR, 1000}) {
        watch_waits({5, 5}, {result});
        const ZYN_RETCODE expected = result == ETIMEDOUT || result == ETIME ? sTIMEOUT : sOKAY;
        EXPECT_EQ(psp_posix_cond_timedwait(&cond, &mutex, 10), expected) << result;
        EXPECT_EQ(deadlines.size(), 1u) << "one wait, whatever comes of it";
    }
}

TEST_F(TimedWait, OfAnEventStartsAfreshAfterEveryOtherWakeUp)
{
    const PSP_SEM event = make(PSP_SEM_EVENT);
    psp_syncStart(event);
    watch_waits({1000, 0}, {0, EINVAL, 0, ETIMEDOUT});
    EXPECT_EQ(psp_syncWait(event, 250), sTIMEOUT);
    ASSERT_EQ(deadlines.size(), 4u);
    for (std::size_t call = 0; call < 4; call++) {
        EXPECT_EQ(deadlines[call].tv_sec, 1000 + static_cast<std::time_t>(call));
        EXPECT_EQ(deadlines[call].tv_nsec, 250000000);
    }
    Fault::clear();
    EXPECT_EQ(pthread_mutex_trylock(&event->obj.e.mutex), 0) << "nothing is left locked";
    pthread_mutex_unlock(&event->obj.e.mutex);
    psp_syncDelete(event);
}

TEST_F(TimedWait, OfAnEventEndsWhenTheFlagIsFoundSet)
{
    const PSP_SEM event = make(PSP_SEM_EVENT);
    psp_syncStart(event);
    watch_waits({1000, 0}, {0, 0, 0});
    signal_with_last = event;
    EXPECT_EQ(psp_syncWait(event, 250), sOKAY);
    EXPECT_EQ(deadlines.size(), 3u);
    Fault::clear();
    EXPECT_EQ(pthread_mutex_trylock(&event->obj.e.mutex), 0);
    pthread_mutex_unlock(&event->obj.e.mutex);
    psp_syncDelete(event);
}

TEST_F(TimedWait, OfAnEventThatTimesOutIsNotAskedForItsFlagAgain)
{
    const PSP_SEM event = make(PSP_SEM_EVENT);
    psp_syncStart(event);
    watch_waits({1000, 0}, {ETIMEDOUT});
    signal_with_last = event;
    EXPECT_EQ(psp_syncWait(event, 250), sTIMEOUT);
    EXPECT_EQ(deadlines.size(), 1u);
    psp_syncDelete(event);
}

TEST_F(TimedWait, OfASignalledEventIsNoWaitAtAll)
{
    const PSP_SEM event = make(PSP_SEM_EVENT);
    watch_waits({1000, 0}, {ETIMEDOUT});
    EXPECT_EQ(psp_syncWait(event, 0), sOKAY);
    EXPECT_EQ(psp_syncWait(event, 100), sOKAY);
    EXPECT_EQ(psp_syncWait(event, PSP_SYNC_FOREVER), sOKAY);
    EXPECT_TRUE(deadlines.empty());
    EXPECT_TRUE(clocks_read.empty());
    psp_syncDelete(event);
}

TEST_F(TimedWait, OfZeroOnAnEventEndsWithoutSleep)
{
    const PSP_SEM event = make(PSP_SEM_EVENT);
    psp_syncStart(event);
    for (const int result : {0, EINVAL, ETIMEDOUT}) {
        watch_waits({1000, 77}, {result});
        EXPECT_EQ(psp_syncWait(event, 0), sTIMEOUT) << result;
        EXPECT_TRUE(deadlines.empty());
        EXPECT_TRUE(clocks_read.empty()) << "the present needs no clock";
    }
    Fault::clear();
    EXPECT_EQ(pthread_mutex_trylock(&event->obj.e.mutex), 0) << "nothing is left locked";
    pthread_mutex_unlock(&event->obj.e.mutex);
    psp_syncDelete(event);
}

TEST_F(TimedWait, WithoutLimitIsNotTimed)
{
    const PSP_SEM event = make(PSP_SEM_EVENT);
    psp_syncStart(event);
    Fault timed("pthread_cond_timedwait");
    std::thread waiter([&] { EXPECT_EQ(psp_syncWait(event, PSP_SYNC_FOREVER), sOKAY); });
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    psp_syncResume(event);
    waiter.join();
    EXPECT_EQ(timed.calls(), 0);
    psp_syncStart(event);
    EXPECT_EQ(psp_syncWait(event, 5), sTIMEOUT);
    EXPECT_GE(timed.calls(), 1);
    psp_syncDelete(event);
}

// ---- Objects ----

clockid_t clock_of_condition = -1;

int note_cond_clock(pthread_cond_t* /*cond*/, const pthread_condattr_t* attr)
{
    clock_of_condition = -1;
    if (attr != nullptr)
        pthread_condattr_getclock(attr, &clock_of_condition);
    return EAGAIN; // the entry was zero, which serves as well
}

TEST_F(SyncFault, AnEventsConditionUsesTheChosenClock)
{
    Fault::replace("pthread_cond_init", note_cond_clock);
    for (const std::int32_t choice : {-1, 0, 1, 200809}) {
        gUseMonotonicClock = choice;
        const PSP_SEM event = make(PSP_SEM_EVENT);
        EXPECT_NE(event, PSP_SEM_INVALID) << "what the system answers does not matter";
        EXPECT_EQ(clock_of_condition, choice > 0 ? CLOCK_MONOTONIC : CLOCK_REALTIME);
    }
}

TEST_F(SyncFault, AMutexHasTheDefaultAttributes)
{
    Fault::replace(
        "pthread_mutex_init", +[](pthread_mutex_t*, const pthread_mutexattr_t* attr) {
            EXPECT_EQ(attr, nullptr);
            return ENOMEM; // ignored
        });
    EXPECT_NE(make(PSP_SEM_MUTEX), PSP_SEM_INVALID);
    EXPECT_NE(make(PSP_SEM_EVENT), PSP_SEM_INVALID);
}

TEST_F(SyncFault, AMutexThatTheSystemRefusesToMakeExcludesAllTheSame)
{
    const PSP_SEM destroyed = make(PSP_SEM_MUTEX);
    psp_syncDelete(destroyed);
    const Fault refusal("pthread_mutex_init", 1, true);
    const PSP_SEM sem = make(PSP_SEM_MUTEX);
    ASSERT_EQ(sem, destroyed) << "in the place of one that is gone";
    psp_syncEnterExcl(sem);
    EXPECT_EQ(pthread_mutex_trylock(&sem->obj.m.mutex), EBUSY);
    psp_syncExitExcl(sem);
    ASSERT_EQ(pthread_mutex_trylock(&sem->obj.m.mutex), 0);
    pthread_mutex_unlock(&sem->obj.m.mutex);
}

TEST_F(SyncFault, EveryMutexAndConditionThatIsMadeIsDestroyedByItsDeletionOrTheStop)
{
    psp_term();
    {
        const Fault mutexes("pthread_mutex_init");
        const Fault destroyed_mutexes("pthread_mutex_destroy");
        const Fault conditions("pthread_cond_init");
        const Fault destroyed_conditions("pthread_cond_destroy");
        ASSERT_EQ(psp_init(), sOKAY);
        for (const std::int16_t type : {PSP_SEM_MUTEX, PSP_SEM_EVENT}) {
            const PSP_SEM deleted = make(type);
            make(type);
            const int before = destroyed_mutexes.calls();
            psp_syncDelete(deleted);
            EXPECT_EQ(destroyed_mutexes.calls(), before + 1);
        }
        EXPECT_EQ(conditions.calls(), 2);
        EXPECT_EQ(destroyed_conditions.calls(), 1);
        psp_term();
        EXPECT_EQ(destroyed_conditions.calls(), 2);
        EXPECT_GE(mutexes.calls(), 4);
        EXPECT_EQ(destroyed_mutexes.calls(), mutexes.calls());
    }
    ASSERT_EQ(psp_init(), sOKAY);
}

TEST_F(SyncFault, AFirstLevelIsOneLockOfTheSystemsAndNoMemory)
{
    const PSP_SEM sem = make(PSP_SEM_MUTEX);
    Fault allocations("tag_alloc", 1, true);
    const Fault locks("pthread_mutex_lock");
    const Fault unlocks("pthread_mutex_unlock");
    for (int i = 0; i < 3; i++)
        psp_syncEnterExcl(sem);
    EXPECT_EQ(locks.calls(), 1);
    for (int i = 0; i < 3; i++)
        psp_syncExitExcl(sem);
    EXPECT_EQ(locks.calls(), 1);
    EXPECT_EQ(unlocks.calls(), 1);
    EXPECT_EQ(allocations.calls(), 0);
    psp_syncDelete(sem);
}

TEST_F(SyncFault, EveryOperationButEnteringUnlocksWhatItLocks)
{
    const Fault locks("pthread_mutex_lock");
    const Fault unlocks("pthread_mutex_unlock");
    int expected = 0;
    const auto expect_one_more = [&](const char* operation) {
        expected++;
        EXPECT_EQ(locks.calls(), expected) << operation;
        EXPECT_EQ(unlocks.calls(), expected) << operation;
    };
    for (const std::int16_t type : {PSP_SEM_MUTEX, PSP_SEM_EVENT}) {
        const PSP_SEM sem = make(type);
        expect_one_more("creating");
        psp_syncDelete(sem);
        expect_one_more("deleting");
    }
    const PSP_SEM event = make(PSP_SEM_EVENT);
    expect_one_more("creating");
    psp_syncStart(event);
    expect_one_more("starting");
    EXPECT_EQ(psp_syncWait(event, 0), sTIMEOUT);
    expect_one_more("waiting");
    psp_syncResume(event);
    expect_one_more("resuming");
    psp_syncDelete(event);
    expect_one_more("deleting");
}

// ---- Threads ----

ZYN_RETCODE nothing(void* /*arg*/)
{
    return sOKAY;
}

TEST_F(ThreadFault, ThatCannotBeMadeLeavesTheCallerAsItWas)
{
    sigset_t before;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    const long heap_blocks = live_heap_blocks();
    for (const int error : {EAGAIN, EPERM, EINVAL}) {
        Fault fault("pthread_create", 1, false, error);
        psp_thread_t thread{};
        EXPECT_EQ(psp_threadBeginEx(nothing, 0, nullptr, &thread, 0, "t"), ePSP_FAILURE);
        EXPECT_EQ(fault.calls(), 1);
    }
    {
        Fault fault("malloc", 1, true);
        psp_thread_t thread{};
        EXPECT_EQ(psp_threadBegin(nothing, 0, nullptr, "t", &thread), ePSP_FAILURE);
    }
    EXPECT_EQ(live_heap_blocks(), heap_blocks);
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    for (int signal = 1; signal < SIGRTMAX; signal++)
        EXPECT_EQ(sigismember(&after, signal), sigismember(&before, signal)) << signal;
}

TEST_F(ThreadFault, ThatCannotBeJoinedIsAFailure)
{
    const long heap_blocks = live_heap_blocks();
    psp_thread_t thread{};
    ASSERT_EQ(psp_threadBegin(nothing, 0, nullptr, nullptr, &thread), sOKAY);
    {
        Fault fault("pthread_join", 1);
        EXPECT_EQ(psp_threadJoin(&thread), ePSP_FAILURE);
    }
    EXPECT_EQ(psp_threadJoin(&thread), sOKAY);
    EXPECT_EQ(live_heap_blocks(), heap_blocks);
}

struct SeenAttributes {
    std::size_t stacksize;
    int inherits;
    bool blocked[3];
};

SeenAttributes attributes;

int note_attributes(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*), void* arg)
{
    attributes = {};
    pthread_attr_getstacksize(attr, &attributes.stacksize);
    pthread_attr_getinheritsched(attr, &attributes.inherits);
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    int i = 0;
    for (const int signal : {SIGINT, SIGTERM, SIGCHLD})
        attributes.blocked[i++] = sigismember(&mask, signal) == 1;
    return __real_pthread_create(thread, attr, start, arg);
}

void run_thread(std::uint32_t stacksize, std::int32_t priority)
{
    psp_thread_t thread{};
    ASSERT_EQ(psp_threadBeginEx(nothing, stacksize, nullptr, &thread, priority, nullptr), sOKAY);
    EXPECT_EQ(psp_threadJoin(&thread), sOKAY);
    for (const bool blocked : attributes.blocked)
        EXPECT_TRUE(blocked) << "the thread inherits what is blocked at its creation";
}

TEST_F(ThreadFault, IsMadeWithTheAttributesAskedFor)
{
    pthread_attr_t usual;
    std::size_t usual_stacksize = 0;
    int usually_inherits = -1;
    pthread_attr_init(&usual);
    pthread_attr_getstacksize(&usual, &usual_stacksize);
    pthread_attr_getinheritsched(&usual, &usually_inherits);
    pthread_attr_destroy(&usual);

    Fault::replace("pthread_create", note_attributes);
    run_thread(0, 0);
    EXPECT_EQ(attributes.stacksize, usual_stacksize);
    EXPECT_EQ(attributes.inherits, usually_inherits);
    run_thread(1234 * 4096, 0);
    EXPECT_EQ(attributes.stacksize, 1234u * 4096);
    EXPECT_EQ(attributes.inherits, usually_inherits);
    run_thread(0, 3);
    EXPECT_EQ(attributes.stacksize, usual_stacksize);
    EXPECT_EQ(attributes.inherits, PTHREAD_EXPLICIT_SCHED);
}

} // namespace
