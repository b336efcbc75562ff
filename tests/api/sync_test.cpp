// Mutexes and events as callers of the shared library see them.
#include "support/psp_test.h"

#include "psp/output.h"
#include "psp/sync.h"
#include "psp/thread.h"
#include "psp/time.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <set>
#include <thread>
#include <vector>

using namespace psptest;

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using std::this_thread::sleep_for;

constexpr std::size_t objects_a_block = 1024;

class Mutex : public PspTest {};
class Event : public PspTest {};
class Objects : public PspTest {};
class SyncWithoutLibrary : public RawTest {};

PSP_SEM make(std::int16_t type)
{
    return psp_syncCreate_check(type, __FILE__, __LINE__);
}

// Runs `body` in a thread of its own; used to see what another thread can do.
template <class Body>
void in_thread(Body body)
{
    std::thread(body).join();
}

std::int64_t millisecs_since(steady_clock::time_point start)
{
    return std::chrono::duration_cast<milliseconds>(steady_clock::now() - start).count();
}

// ---- Mutexes ----

TEST_F(Mutex, IsFreeWhenItIsNew)
{
    const PSP_SEM sem = make(PSP_SEM_MUTEX);
    ASSERT_NE(sem, PSP_SEM_INVALID);
    in_thread([&] {
        EXPECT_EQ(psp_syncEnterExcl(sem), sOKAY);
        psp_syncExitExcl(sem);
    });
    EXPECT_EQ(psp_syncEnterExcl(sem), sOKAY);
    psp_syncExitExcl(sem);
    psp_syncDelete(sem);
}

TEST_F(Mutex, EnteredThreeTimesMustBeLeftThreeTimes)
{
    const PSP_SEM sem = make(PSP_SEM_MUTEX);
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(psp_syncEnterExcl(sem), sOKAY);
    std::atomic<bool> entered{false};
    std::thread other([&] {
        psp_syncEnterExcl(sem);
        entered = true;
        psp_syncExitExcl(sem);
    });
    for (int left = 0; left < 3; left++) {
        sleep_for(milliseconds(10));
        EXPECT_FALSE(entered) << "after " << left << " exits";
        psp_syncExitExcl(sem);
    }
    other.join();
    EXPECT_TRUE(entered);
    psp_syncDelete(sem);
}

TEST_F(Mutex, CanBeTakenAgainAfterNestedUse)
{
    const PSP_SEM sem = make(PSP_SEM_MUTEX);
    for (int round = 0; round < 100; round++) {
        for (int depth = 0; depth <= round; depth++)
            psp_syncEnterExcl(sem);
        for (int depth = 0; depth <= round; depth++)
            psp_syncExitExcl(sem);
    }
    in_thread([&] {
        psp_syncEnterExcl(sem);
        psp_syncExitExcl(sem);
    });
    psp_syncDelete(sem);
}

TEST_F(Mutex, ExcludesOtherThreads)
{
    const PSP_SEM sem = make(PSP_SEM_MUTEX);
    int plain = 0; // needs the mutex
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; thread++) {
        threads.emplace_back([&] {
            for (int i = 0; i < 2000; i++) {
                psp_syncEnterExcl(sem);
                psp_syncEnterExcl(sem);
                plain++;
                psp_syncExitExcl(sem);
                plain++;
                psp_syncExitExcl(sem);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(plain, 16000);
    psp_syncDelete(sem);
}

TEST_F(Mutex, OfOneHandleDoesNotHoldUpAnother)
{
    const PSP_SEM first = make(PSP_SEM_MUTEX);
    const PSP_SEM second = make(PSP_SEM_MUTEX);
    psp_syncEnterExcl(first);
    in_thread([&] {
        psp_syncEnterExcl(second);
        psp_syncExitExcl(second);
    });
    psp_syncExitExcl(first);
    psp_syncDelete(first);
    psp_syncDelete(second);
}

// ---- Events ----

TEST_F(Event, IsSignalledWhenItIsNew)
{
    const PSP_SEM event = make(PSP_SEM_EVENT);
    ASSERT_NE(event, PSP_SEM_INVALID);
    EXPECT_EQ(psp_syncWait(event, 0), sOKAY);
    EXPECT_EQ(psp_syncWait(event, 1000000), sOKAY);
    EXPECT_EQ(psp_syncWait(event, PSP_SYNC_FOREVER), sOKAY);
    psp_syncStart(event);
    EXPECT_EQ(psp_syncWait(event, 0), sTIMEOUT);
    psp_syncDelete(event);
}

TEST_F(Event, StaysSignalledUntilItIsReset)
{
    const PSP_SEM event = make(PSP_SEM_EVENT);
    psp_syncStart(event);
    psp_syncResume(event);
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(psp_syncWait(event, PSP_SYNC_FOREVER), sOKAY);
    psp_syncResume(event); // signalled already
    EXPECT_EQ(psp_syncWait(event, 0), sOKAY);
    psp_syncStart(event);
    psp_syncStart(event); // reset already
    EXPECT_EQ(psp_syncWait(event, 1), sTIMEOUT);
    psp_syncDelete(event);
}

TEST_F(Event, TimesOutNoSoonerThanAsked)
{
    const PSP_SEM event = make(PSP_SEM_EVENT);
    psp_syncStart(event);
    for (const std::uint32_t timeout : {0u, 1u, 30u, 60u}) {
        const auto start = steady_clock::now();
        EXPECT_EQ(psp_syncWait(event, timeout), sTIMEOUT);
        EXPECT_GE(millisecs_since(start), timeout);
    }
    psp_syncDelete(event);
}

TEST_F(Event, TimesOutOnTheRealTimeClockToo)
{
    const std::int32_t choice = gUseMonotonicClock;
    gUseMonotonicClock = 0;
    const PSP_SEM event = make(PSP_SEM_EVENT);
    psp_syncStart(event);
    const auto start = steady_clock::now();
    EXPECT_EQ(psp_syncWait(event, 30), sTIMEOUT);
    EXPECT_GE(millisecs_since(start), 29);
    psp_syncDelete(event);
    gUseMonotonicClock = choice;
}

TEST_F(Event, ReleasesEveryWaiter)
{
    const PSP_SEM event = make(PSP_SEM_EVENT);
    psp_syncStart(event);
    std::atomic<int> passed{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 6; i++) {
        waiters.emplace_back([&, i] {
            const std::uint32_t timeout = i % 2 == 0 ? PSP_SYNC_FOREVER : 100000;
            if (psp_syncWait(event, timeout) == sOKAY)
                passed++;
        });
    }
    sleep_for(milliseconds(20));
    EXPECT_EQ(passed, 0);
    psp_syncResume(event);
    for (std::thread& waiter : waiters)
        waiter.join();
    EXPECT_EQ(passed, 6);
    EXPECT_EQ(psp_syncWait(event, 0), sOKAY);
    psp_syncDelete(event);
}

TEST_F(Event, HandsDataFromThreadToThread)
{
    const PSP_SEM ready = make(PSP_SEM_EVENT);
    const PSP_SEM taken = make(PSP_SEM_EVENT);
    psp_syncStart(ready);
    int plain = 0;
    std::int64_t sum = 0;
    std::thread consumer([&] {
        for (int i = 0; i < 500; i++) {
            psp_syncWait(ready, PSP_SYNC_FOREVER);
            psp_syncStart(ready);
            sum += plain;
            psp_syncResume(taken);
        }
    });
    for (int i = 1; i <= 500; i++) {
        psp_syncWait(taken, PSP_SYNC_FOREVER);
        psp_syncStart(taken);
        plain = i;
        psp_syncResume(ready);
    }
    consumer.join();
    EXPECT_EQ(sum, 500 * 501 / 2);
    psp_syncDelete(ready);
    psp_syncDelete(taken);
}

TEST_F(Event, TimedWaitOnACallersConditionTellsTimeoutFromWakeUp)
{
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, gUseMonotonicClock > 0 ? CLOCK_MONOTONIC : CLOCK_REALTIME);
    pthread_cond_t cond;
    pthread_cond_init(&cond, &attr);
    pthread_condattr_destroy(&attr);
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;

    pthread_mutex_lock(&mutex);
    const auto start = steady_clock::now();
    ZYN_RETCODE rc = sOKAY;
    while (rc == sOKAY) // a wake-up without cause is possible
        rc = psp_posix_cond_timedwait(&cond, &mutex, 20);
    EXPECT_EQ(rc, sTIMEOUT);
    EXPECT_GE(millisecs_since(start), 20);

    bool woken = false;
    std::thread waker([&] {
        pthread_mutex_lock(&mutex); // free only while the wait below goes on
        woken = true;
        pthread_cond_signal(&cond);
        pthread_mutex_unlock(&mutex);
    });
    rc = sOKAY;
    while (!woken && rc == sOKAY)
        rc = psp_posix_cond_timedwait(&cond, &mutex, 100000);
    EXPECT_EQ(rc, sOKAY);
    EXPECT_TRUE(woken);
    pthread_mutex_unlock(&mutex);
    waker.join();
    pthread_cond_destroy(&cond);
}

// ---- Handles ----

TEST_F(Objects, AreReusedInReverseOrderOfDeletion)
{
    PSP_SEM made[5];
    for (PSP_SEM& sem : made)
        sem = make(PSP_SEM_MUTEX);
    psp_syncDelete(made[1]);
    psp_syncDelete(made[3]);
    psp_syncDelete(made[0]);
    EXPECT_EQ(make(PSP_SEM_EVENT), made[0]);
    EXPECT_EQ(make(PSP_SEM_MUTEX), made[3]);
    EXPECT_EQ(make(PSP_SEM_EVENT), made[1]);
    EXPECT_EQ(psp_syncWait(made[0], 0), sOKAY) << "an event in the place of a mutex works";
    for (const PSP_SEM sem : made)
        psp_syncDelete(sem);
}

TEST_F(Objects, KeepNothingOfTheirPredecessor)
{
    const PSP_SEM first = make(PSP_SEM_EVENT);
    psp_syncStart(first);
    psp_syncDelete(first);
    const PSP_SEM second = make(PSP_SEM_EVENT);
    ASSERT_EQ(second, first);
    EXPECT_EQ(psp_syncWait(second, 0), sOKAY) << "a new event is signalled";
    psp_syncDelete(second);

    const PSP_SEM third = make(PSP_SEM_MUTEX);
    psp_syncEnterExcl(third);
    psp_syncExitExcl(third);
    psp_syncDelete(third);
}

TEST_F(Objects, OfASecondBlockLeaveTheFirstOnesValid)
{
    const PSP_SEM held = make(PSP_SEM_MUTEX);
    const PSP_SEM event = make(PSP_SEM_EVENT);
    psp_syncEnterExcl(held);
    psp_syncStart(event);
    std::vector<PSP_SEM> more;
    for (std::size_t i = 0; i < objects_a_block + 1; i++)
        more.push_back(make(i % 2 == 0 ? PSP_SEM_MUTEX : PSP_SEM_EVENT));
    std::set<PSP_SEM> all(more.begin(), more.end());
    all.insert({held, event});
    EXPECT_EQ(all.size(), objects_a_block + 3) << "every handle is another one";
    EXPECT_EQ(all.count(PSP_SEM_INVALID), 0u);

    std::atomic<bool> entered{false};
    std::thread other([&] {
        psp_syncEnterExcl(held);
        entered = true;
        psp_syncExitExcl(held);
    });
    sleep_for(milliseconds(10));
    EXPECT_FALSE(entered);
    EXPECT_EQ(psp_syncWait(event, 0), sTIMEOUT);
    psp_syncResume(event);
    EXPECT_EQ(psp_syncWait(event, 0), sOKAY);
    psp_syncExitExcl(held);
    other.join();
    for (std::size_t i = 0; i < more.size(); i += 2) {
        psp_syncEnterExcl(more[i]);
        psp_syncExitExcl(more[i]);
    }
    for (const PSP_SEM sem : all)
        psp_syncDelete(sem);
}

TEST_F(Objects, OfAnInvalidTypeAreRefusedWithAMessage)
{
    for (const int type : {0, 3, -1, 256, 32767, -32768}) {
        CapturedFd out(1);
        EXPECT_EQ(make(static_cast<std::int16_t>(type)), PSP_SEM_INVALID);
        EXPECT_EQ(out.finish(), "Invalid semaphore type\n");
    }
}

TEST_F(Objects, RefusedForTheirTypeAreLost)
{
    const PSP_SEM next = make(PSP_SEM_MUTEX);
    psp_syncDelete(next);
    CapturedFd out(1);
    ASSERT_EQ(make(3), PSP_SEM_INVALID);
    out.finish();
    const PSP_SEM after = make(PSP_SEM_MUTEX);
    EXPECT_NE(after, next) << "the place of the refused one stays taken";
    psp_syncDelete(after);
}

TEST_F(Objects, InvalidTypeIsLoggedToTheLogFileToo)
{
    const TempDir dir;
    const std::string path = dir / "log";
    ASSERT_EQ(psp_log_openEx(nullptr, path.c_str()), sOKAY);
    CapturedFd out(1);
    EXPECT_EQ(make(9), PSP_SEM_INVALID);
    out.finish();
    psp_log_closeEx(nullptr);
    const std::string line = read_file(path);
    EXPECT_TRUE(line.ends_with("]  Invalid semaphore type\n")) << line;
}

TEST_F(Objects, DeletionOfTheInvalidHandleDoesNothing)
{
    const PSP_SEM before = make(PSP_SEM_MUTEX);
    psp_syncDelete(before);
    psp_syncDelete(PSP_SEM_INVALID);
    const PSP_SEM after = make(PSP_SEM_MUTEX);
    EXPECT_EQ(after, before);
    psp_syncDelete(after);
}

TEST_F(Objects, TheInvalidHandleHasAllBitsSet)
{
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(PSP_SEM_INVALID), ~std::uintptr_t{0});
    EXPECT_EQ(static_cast<int>(PSP_SEM_MUTEX), 1);
    EXPECT_EQ(static_cast<int>(PSP_SEM_EVENT), 2);
}

// The end of the table is fatal. The message must come out even when the thread that meets it has
// never used memory of its own, and says who asked.
TEST_F(Objects, BeyondTheLastOneEndTheProcessWithAMessage)
{
    constexpr std::size_t all_objects = 128 * objects_a_block;
    const TempDir dir;
    const std::string log = dir / "log";
    CapturedFd out(1);
    const int status = run_in_child([&] {
        psp_log_openEx(nullptr, log.c_str());
        // The library holds a few of them itself.
        for (std::size_t i = 0; i < all_objects; i++) {
            if (i + 16 > all_objects) {
                std::thread([] {
                    if (psp_syncCreate_check(PSP_SEM_MUTEX, "caller.cpp", 77) == PSP_SEM_INVALID)
                        _exit(2);
                }).join();
            } else if (make(i % 2 == 0 ? PSP_SEM_MUTEX : PSP_SEM_EVENT) == PSP_SEM_INVALID) {
                _exit(1);
            }
        }
        return 3;
    });
    const std::string message = "Insufficient number of semaphores, called from caller.cpp:77\n";
    EXPECT_EQ(out.finish(), message);
    EXPECT_EQ(status, 128 + SIGABRT);
    EXPECT_TRUE(read_file(log).ends_with("]  " + message)) << read_file(log);
}

// ---- Without the library ----

TEST_F(SyncWithoutLibrary, NothingIsCreatedBeforeTheStart)
{
    CapturedFd out(1);
    EXPECT_EQ(make(PSP_SEM_MUTEX), PSP_SEM_INVALID);
    EXPECT_EQ(make(PSP_SEM_EVENT), PSP_SEM_INVALID);
    EXPECT_EQ(make(3), PSP_SEM_INVALID);
    EXPECT_EQ(out.finish(), "") << "without a message";
}

TEST_F(SyncWithoutLibrary, EveryOperationOnADeadHandleIsHarmless)
{
    ASSERT_EQ(psp_init(), sOKAY);
    const PSP_SEM mutex = make(PSP_SEM_MUTEX);
    const PSP_SEM event = make(PSP_SEM_EVENT);
    psp_syncStart(event);
    psp_term();
    CapturedFd out(1);
    EXPECT_EQ(make(PSP_SEM_MUTEX), PSP_SEM_INVALID);
    for (const PSP_SEM sem : {mutex, event, PSP_SEM_INVALID, PSP_SEM(nullptr)}) {
        for (int i = 0; i < 3; i++)
            EXPECT_EQ(psp_syncEnterExcl(sem), sOKAY);
        in_thread([&] { EXPECT_EQ(psp_syncEnterExcl(sem), sOKAY); });
        psp_syncExitExcl(sem);
        psp_syncStart(sem);
        psp_syncResume(sem);
        EXPECT_EQ(psp_syncWait(sem, 0), ePSP_FAILURE);
        EXPECT_EQ(psp_syncWait(sem, PSP_SYNC_FOREVER), ePSP_FAILURE);
        psp_syncDelete(sem);
    }
    EXPECT_EQ(out.finish(), "");
}

TEST_F(SyncWithoutLibrary, AStopDestroysWhatNobodyDeleted)
{
    for (int cycle = 0; cycle < 3; cycle++) {
        ASSERT_EQ(psp_init(), sOKAY);
        for (std::size_t i = 0; i < 2 * objects_a_block + 7; i++)
            ASSERT_NE(make(i % 3 == 0 ? PSP_SEM_EVENT : PSP_SEM_MUTEX), PSP_SEM_INVALID);
        psp_term();
        EXPECT_EQ(memory_in_use(), 0u);
    }
}

} // namespace
