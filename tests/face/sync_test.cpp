// Mutexes under the standard library's guards, tries, and events.
#include "support/psp_test.h"
#include "support/threads.h"

#include "psp/sync.hpp"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <thread>
#include <type_traits>
#include <utility>

using psptest::run_together;

namespace {

class FaceSync : public psptest::PspTest {};

// Whether another thread gets the mutex at once.
bool free_for_others(psp::try_mutex& mutex)
{
    bool got = false;
    std::thread([&] {
        got = mutex.try_lock();
        if (got)
            mutex.unlock();
    }).join();
    return got;
}

TEST_F(FaceSync, LockGuardKeepsOthersOut)
{
    psp::mutex mutex = psp::mutex::create();
    ASSERT_TRUE(mutex);
    int count = 0;
    run_together(4, [&](int) {
        for (int i = 0; i < 2000; i++) {
            const std::lock_guard<psp::mutex> guard(mutex);
            count++; // the thread sanitizer sees whether this is guarded
        }
    });
    EXPECT_EQ(count, 8000);
}

TEST_F(FaceSync, MutexMayBeLockedAgainByItsHolder)
{
    psp::mutex mutex = psp::mutex::create();
    const std::scoped_lock outer(mutex);
    const std::unique_lock<psp::mutex> inner(mutex);
    EXPECT_TRUE(inner.owns_lock());
}

TEST_F(FaceSync, MutexMovesWithItsHandle)
{
    psp::mutex first = psp::mutex::create();
    const PSP_SEM sem = first.native();
    psp::mutex second = std::move(first);
    EXPECT_FALSE(first); // NOLINT: what is left behind is told
    EXPECT_EQ(second.native(), sem);
    const std::lock_guard<psp::mutex> guard(second);
}

TEST_F(FaceSync, MutexesOfOneHandleAreGivenBack)
{
    PSP_SEM sem = PSP_SEM_INVALID;
    for (int i = 0; i < 3; i++) {
        const psp::mutex mutex = psp::mutex::create();
        if (i > 0) {
            EXPECT_EQ(mutex.native(), sem) << "a freed object is the first to be used again";
        }
        sem = mutex.native();
    }
}

template <class Mutex, class = void>
constexpr bool can_be_tried = false;
template <class Mutex>
constexpr bool can_be_tried<Mutex, std::void_t<decltype(std::declval<Mutex&>().try_lock())>> = true;
static_assert(!can_be_tried<psp::mutex> && can_be_tried<psp::try_mutex>);

TEST_F(FaceSync, TryFailsWhileAnybodyHolds)
{
    psp::try_mutex mutex = psp::try_mutex::create();
    ASSERT_TRUE(mutex);
    EXPECT_TRUE(free_for_others(mutex));
    mutex.lock();
    EXPECT_FALSE(free_for_others(mutex));
    EXPECT_FALSE(mutex.try_lock());
    mutex.unlock();
    EXPECT_TRUE(free_for_others(mutex));
    ASSERT_TRUE(mutex.try_lock());
    EXPECT_FALSE(free_for_others(mutex));
    mutex.unlock();
    EXPECT_TRUE(free_for_others(mutex));
}

TEST_F(FaceSync, TryMutexMovesWhileNobodyHoldsIt)
{
    psp::try_mutex first = psp::try_mutex::create();
    psp::try_mutex second;
    EXPECT_FALSE(second);
    second = std::move(first);
    EXPECT_FALSE(first); // NOLINT: what is left behind is told
    EXPECT_TRUE(second);
    psp::try_mutex third = std::move(second);
    EXPECT_FALSE(second); // NOLINT
    EXPECT_TRUE(free_for_others(third));
}

TEST_F(FaceSync, ManyThreadsGetATryMutexInTurn)
{
    psp::try_mutex mutex = psp::try_mutex::create();
    int count = 0;
    run_together(6, [&](int) {
        for (int i = 0; i < 1000; i++) {
            const std::lock_guard<psp::try_mutex> guard(mutex);
            count++;
            if (i % 100 == 0)
                std::this_thread::yield(); // others come while it is held
        }
    });
    EXPECT_EQ(count, 6000);
    EXPECT_TRUE(free_for_others(mutex));
}

// CPU time of the calling thread.
std::chrono::nanoseconds cpu_time()
{
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

TEST_F(FaceSync, WhoWaitsForATryMutexSleepsAndIsWoken)
{
    using namespace std::chrono_literals;
    psp::try_mutex mutex = psp::try_mutex::create();
    std::atomic<int> got{0};
    mutex.lock();
    const auto wait = [&] {
        mutex.lock();
        got++;
        mutex.unlock();
        EXPECT_LT(cpu_time(), 50ms);
    };
    std::thread first(wait);
    std::thread second(wait);
    std::this_thread::sleep_for(300ms); // long enough for a thread that does not sleep to show it
    EXPECT_EQ(got, 0);
    mutex.unlock();
    first.join();
    second.join();
    EXPECT_EQ(got, 2);
}

TEST_F(FaceSync, TriesAndLocksTogetherKeepOthersOut)
{
    psp::try_mutex mutex = psp::try_mutex::create();
    int count = 0;
    std::atomic<int> counted{0};
    run_together(4, [&](int number) {
        for (int i = 0; i < 2000; i++) {
            std::unique_lock<psp::try_mutex> lock(mutex, std::defer_lock);
            if (number % 2 == 0)
                lock.lock();
            else if (!lock.try_lock())
                continue;
            count++;
            counted++;
        }
    });
    EXPECT_EQ(count, counted);
    EXPECT_GE(count, 4000);
}

TEST_F(FaceSync, ScopedLocksOfTwoInOppositeOrdersDoNotBlockEachOther)
{
    psp::try_mutex first = psp::try_mutex::create();
    psp::try_mutex second = psp::try_mutex::create();
    int count = 0;
    run_together(2, [&](int number) {
        for (int i = 0; i < 5000; i++) {
            if (number == 0) {
                const std::scoped_lock both(first, second);
                count++;
            } else {
                const std::scoped_lock both(second, first);
                count++;
            }
        }
    });
    EXPECT_EQ(count, 10000);
    EXPECT_TRUE(free_for_others(first));
    EXPECT_TRUE(free_for_others(second));
}

TEST_F(FaceSync, ScopedLockGoesTogetherWithOneThatNestsTheOtherWayRound)
{
    psp::try_mutex first = psp::try_mutex::create();
    std::mutex second; // of the standard library: kinds may be mixed
    int count = 0;
    run_together(2, [&](int number) {
        for (int i = 0; i < 5000; i++) {
            if (number == 0) {
                const std::scoped_lock both(first, second);
                count++;
            } else {
                const std::lock_guard<std::mutex> outer(second);
                const std::lock_guard<psp::try_mutex> inner(first);
                count++;
            }
        }
    });
    EXPECT_EQ(count, 10000);
}

TEST_F(FaceSync, EventStartsSignalledAndWaitsOnceCleared)
{
    psp::event event = psp::event::create();
    ASSERT_TRUE(event);
    EXPECT_EQ(event.wait(), sOKAY);
    event.clear();
    EXPECT_EQ(event.wait(0), sTIMEOUT);
    EXPECT_EQ(event.wait(1), sTIMEOUT);
    event.signal();
    EXPECT_EQ(event.wait(), sOKAY);
}

TEST_F(FaceSync, EventLetsAWaitingThreadGoOn)
{
    psp::event event = psp::event::create();
    event.clear();
    std::atomic<bool> passed{false};
    std::thread waiting([&] {
        EXPECT_EQ(event.wait(), sOKAY);
        passed = true;
    });
    EXPECT_FALSE(passed);
    event.signal();
    waiting.join();
    EXPECT_TRUE(passed);
}

TEST_F(FaceSync, EventWaitsForADurationOfAnyUnit)
{
    using namespace std::chrono_literals;
    psp::event event = psp::event::create();
    EXPECT_EQ(event.wait_for(24h * 365 * 200), sOKAY);
    EXPECT_EQ(event.wait_for(-1s), sOKAY);
    event.clear();
    EXPECT_EQ(event.wait_for(0s), sTIMEOUT);
    EXPECT_EQ(event.wait_for(-1s), sTIMEOUT);
    EXPECT_EQ(event.wait_for(std::chrono::hours::min()), sTIMEOUT);
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(event.wait_for(1500us), sTIMEOUT);
    EXPECT_EQ(event.wait_for(std::chrono::duration<double>(0.0015)), sTIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - before, 4ms) << "rounded up to 2 ms each";
}

TEST_F(FaceSync, EventWaitsLongerThanMillisecondsOf32BitsTell)
{
    using namespace std::chrono_literals;
    psp::event event = psp::event::create();
    event.clear();
    std::thread later([&] {
        std::this_thread::sleep_for(20ms);
        event.signal();
    });
    EXPECT_EQ(event.wait_for(std::chrono::milliseconds(INT64_C(1) << 32)), sOKAY);
    later.join();
}

} // namespace
