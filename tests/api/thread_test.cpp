// Threads that return a status, and atomic operations.
#include "support/psp_test.h"

#include "psp/core.h"
#include "psp/thread.h"

#include <atomic>
#include <climits>
#include <csignal>
#include <cstdint>
#include <thread>
#include <vector>

#include <pthread.h>

using namespace psptest;

namespace {

class Thread : public PspTest {};
class ThreadWithoutLibrary : public RawTest {};

ZYN_RETCODE give_back(void* arg)
{
    return *static_cast<ZYN_RETCODE*>(arg);
}

ZYN_RETCODE begin(PSP_THREAD_FCN fcn, void* arg, psp_thread_t* thread, std::uint32_t stacksize = 0,
                  std::int32_t priority = 0, const char* name = nullptr)
{
    return psp_threadBeginEx(fcn, stacksize, arg, thread, priority, name);
}

// ---- Start and join ----

TEST_F(Thread, HandsItsStatusToTheJoin)
{
    const ZYN_RETCODE codes[] = {sOKAY, eNOMEMORY, sNOTFOUND, ePSP_FAILURE,
                                 -1,    1,         INT32_MAX, INT32_MIN};
    for (ZYN_RETCODE code : codes) {
        psp_thread_t thread{};
        ASSERT_EQ(begin(give_back, &code, &thread), sOKAY);
        EXPECT_EQ(psp_threadJoin(&thread), code);
    }
}

TEST_F(Thread, GetsItsArgumentAndLeavesTheCallersFieldAlone)
{
    void* seen = nullptr;
    struct Box {
        void** seen;
    } box = {&seen};
    psp_thread_t thread{};
    thread.rc = 12345;
    const auto note = [](void* arg) -> ZYN_RETCODE {
        *static_cast<Box*>(arg)->seen = arg;
        return eRANGE;
    };
    ASSERT_EQ(begin(note, &box, &thread), sOKAY);
    EXPECT_EQ(psp_threadJoin(&thread), eRANGE);
    EXPECT_EQ(seen, &box);
    EXPECT_EQ(thread.rc, 12345);

    const auto is_null = [](void* arg) -> ZYN_RETCODE { return arg == nullptr ? sOKAY : eRANGE; };
    ASSERT_EQ(begin(is_null, nullptr, &thread), sOKAY);
    EXPECT_EQ(psp_threadJoin(&thread), sOKAY);
}

TEST_F(Thread, ShortFormTakesItsArgumentsInAnotherOrder)
{
    ZYN_RETCODE code = sDUPLICATE;
    psp_thread_t thread{};
    ASSERT_EQ(psp_threadBegin(give_back, 0, &code, "worker", &thread), sOKAY);
    EXPECT_EQ(psp_threadJoin(&thread), sDUPLICATE);
    ASSERT_EQ(psp_threadBegin(give_back, 256 * 1024, &code, nullptr, &thread), sOKAY);
    EXPECT_EQ(psp_threadJoin(&thread), sDUPLICATE);
}

TEST_F(Thread, RunsBesideItsStarter)
{
    std::atomic<bool> go{false};
    const auto wait = [](void* arg) -> ZYN_RETCODE {
        while (!*static_cast<std::atomic<bool>*>(arg))
            std::this_thread::yield();
        return sOKAY;
    };
    psp_thread_t threads[5];
    for (psp_thread_t& thread : threads)
        ASSERT_EQ(begin(wait, &go, &thread), sOKAY);
    go = true;
    for (psp_thread_t& thread : threads)
        EXPECT_EQ(psp_threadJoin(&thread), sOKAY);
}

ZYN_RETCODE own_id(void* arg)
{
    *static_cast<psp_thread_id_t*>(arg) = psp_threadId();
    return sOKAY;
}

TEST_F(Thread, IsKnownByTheIdThatItSeesItself)
{
    psp_thread_id_t inside{};
    psp_thread_t thread{};
    ASSERT_EQ(begin(own_id, &inside, &thread), sOKAY);
    const psp_thread_id_t outside = thread.id;
    EXPECT_EQ(psp_threadJoin(&thread), sOKAY);
    EXPECT_NE(pthread_equal(inside, outside), 0);
    EXPECT_EQ(pthread_equal(inside, psp_threadId()), 0);
    EXPECT_NE(pthread_equal(pthread_self(), psp_threadId()), 0);
}

ZYN_RETCODE own_stack_size(void* arg)
{
    pthread_attr_t attr;
    pthread_getattr_np(pthread_self(), &attr);
    pthread_attr_getstacksize(&attr, static_cast<std::size_t*>(arg));
    pthread_attr_destroy(&attr);
    return sOKAY;
}

std::size_t stack_size_with(std::uint32_t asked)
{
    std::size_t size = 0;
    psp_thread_t thread{};
    EXPECT_EQ(begin(own_stack_size, &size, &thread, asked), sOKAY);
    EXPECT_EQ(psp_threadJoin(&thread), sOKAY);
    return size;
}

TEST_F(Thread, HasAStackAsLargeAsWasAskedFor)
{
    pthread_attr_t attr;
    std::size_t usual = 0;
    pthread_attr_init(&attr);
    pthread_attr_getstacksize(&attr, &usual);
    pthread_attr_destroy(&attr);
    // The system may hand a thread the larger stack of one that ended.
    EXPECT_GE(stack_size_with(0), usual);
    EXPECT_GE(stack_size_with(1), usual) << "a size that the system refuses is ignored";
    const std::uint32_t large = 128u << 20;
    ASSERT_LT(usual, large);
    EXPECT_GE(stack_size_with(large), large);
}

struct Scheduling {
    int policy;
    int priority;
};

ZYN_RETCODE own_scheduling(void* arg)
{
    auto* const scheduling = static_cast<Scheduling*>(arg);
    sched_param param{};
    pthread_getschedparam(pthread_self(), &scheduling->policy, &param);
    scheduling->priority = param.sched_priority;
    return sOKAY;
}

TEST_F(Thread, StartsEvenWhenThePriorityIsRefused)
{
    // The usual policy knows priority 0 only.
    for (const std::int32_t priority : {0, 1, 50, -1, 1000000, INT32_MIN}) {
        Scheduling seen = {-1, -1};
        psp_thread_t thread{};
        ASSERT_EQ(begin(own_scheduling, &seen, &thread, 0, priority, "named"), sOKAY) << priority;
        EXPECT_EQ(psp_threadJoin(&thread), sOKAY);
        EXPECT_EQ(seen.policy, SCHED_OTHER);
        EXPECT_EQ(seen.priority, 0);
    }
}

TEST_F(Thread, WithoutABodyOrAPlaceForItsIdIsRefused)
{
    psp_thread_t thread{};
    ZYN_RETCODE code = sOKAY;
    EXPECT_EQ(begin(nullptr, &code, &thread), ePSP_FAILURE);
    EXPECT_EQ(begin(give_back, &code, nullptr), ePSP_FAILURE);
    EXPECT_EQ(psp_threadJoin(nullptr), ePSP_FAILURE);
}

TEST_F(Thread, CannotJoinItself)
{
    const auto join_self = [](void*) -> ZYN_RETCODE {
        psp_thread_t self{};
        self.id = psp_threadId();
        return psp_threadJoin(&self) == ePSP_FAILURE ? sOKAY : eRANGE;
    };
    if (under_tsan)
        GTEST_SKIP() << "the sanitizer ends a process that does this";
    psp_thread_t thread{};
    ASSERT_EQ(begin(join_self, nullptr, &thread), sOKAY);
    EXPECT_EQ(psp_threadJoin(&thread), sOKAY);
}

TEST_F(Thread, ThatWasDetachedCannotBeJoined)
{
    if (under_asan || under_tsan)
        GTEST_SKIP() << "the sanitizer ends a process that does this";
    std::atomic<int> step{0};
    const auto wait = [](void* arg) -> ZYN_RETCODE {
        auto& shared = *static_cast<std::atomic<int>*>(arg);
        while (shared != 1)
            std::this_thread::yield();
        shared = 2;
        return sOKAY;
    };
    psp_thread_t thread{};
    ASSERT_EQ(begin(wait, &step, &thread), sOKAY);
    ASSERT_EQ(pthread_detach(thread.id), 0);
    EXPECT_EQ(psp_threadJoin(&thread), ePSP_FAILURE);
    step = 1;
    while (step != 2)
        std::this_thread::yield();
}

TEST_F(Thread, MayEndItselfWithAWiderValueOfWhichTheLowHalfCounts)
{
    const auto leave = [](void*) -> ZYN_RETCODE {
        pthread_exit(reinterpret_cast<void*>(std::uintptr_t{0x12345678FFFFD8F0})); // low: -10000
    };
    psp_thread_t thread{};
    ASSERT_EQ(begin(leave, nullptr, &thread), sOKAY);
    EXPECT_EQ(psp_threadJoin(&thread), eNOMEMORY);
}

// ---- Signals ----

constexpr int kept_away[] = {SIGINT, SIGTERM, SIGCHLD};

ZYN_RETCODE own_mask(void* arg)
{
    pthread_sigmask(SIG_SETMASK, nullptr, static_cast<sigset_t*>(arg));
    return sOKAY;
}

TEST_F(Thread, RunsWithTheSignalsOfTheProcessBlocked)
{
    sigset_t before;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    sigset_t inside;
    psp_thread_t thread{};
    ASSERT_EQ(begin(own_mask, &inside, &thread), sOKAY);
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    EXPECT_EQ(psp_threadJoin(&thread), sOKAY);
    for (const int signal : kept_away) {
        EXPECT_EQ(sigismember(&inside, signal), 1) << signal;
        EXPECT_EQ(sigismember(&before, signal), 0) << signal;
    }
    EXPECT_EQ(sigismember(&inside, SIGHUP), 0);
    EXPECT_EQ(sigismember(&inside, SIGUSR1), 0);
    for (int signal = 1; signal < SIGRTMAX; signal++)
        EXPECT_EQ(sigismember(&after, signal), sigismember(&before, signal)) << signal;
}

TEST_F(Thread, KeepsWhatItsStarterHadBlocked)
{
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR2);
    sigaddset(&blocked, SIGINT);
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    sigset_t inside;
    psp_thread_t thread{};
    ASSERT_EQ(begin(own_mask, &inside, &thread), sOKAY);
    EXPECT_EQ(psp_threadJoin(&thread), sOKAY);
    EXPECT_EQ(sigismember(&inside, SIGUSR2), 1);
    EXPECT_EQ(sigismember(&inside, SIGTERM), 1);
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, &before, &after);
    EXPECT_EQ(sigismember(&after, SIGINT), 1);
    EXPECT_EQ(sigismember(&after, SIGUSR2), 1);
    EXPECT_EQ(sigismember(&after, SIGTERM), 0);
}

std::atomic<psp_thread_id_t> interrupted_thread;
std::atomic<int> interrupts;

void note_interrupt(int /*signal*/)
{
    interrupted_thread = pthread_self();
    interrupts++;
}

TEST_F(Thread, NeverGetsAnInterruptSentToTheProcess)
{
    interrupts = 0;
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = note_interrupt;
    sigaction(SIGINT, &action, &before);
    std::atomic<bool> go{false};
    const auto wait = [](void* arg) -> ZYN_RETCODE {
        while (!*static_cast<std::atomic<bool>*>(arg))
            std::this_thread::yield();
        return sOKAY;
    };
    psp_thread_t thread{};
    ASSERT_EQ(begin(wait, &go, &thread), sOKAY);
    for (int i = 1; i <= 20; i++) {
        kill(getpid(), SIGINT);
        while (interrupts < i)
            std::this_thread::yield();
        EXPECT_NE(pthread_equal(interrupted_thread, psp_threadId()), 0);
    }
    go = true;
    EXPECT_EQ(psp_threadJoin(&thread), sOKAY);
    sigaction(SIGINT, &before, nullptr);
}

// ---- Without the library ----

TEST_F(ThreadWithoutLibrary, NothingIsStarted)
{
    std::atomic<int> runs{0};
    const auto note = [](void* arg) -> ZYN_RETCODE {
        ++*static_cast<std::atomic<int>*>(arg);
        return sOKAY;
    };
    psp_thread_t thread{};
    EXPECT_EQ(begin(note, &runs, &thread), ePSP_FAILURE);
    EXPECT_EQ(psp_threadBegin(note, 0, &runs, nullptr, &thread), ePSP_FAILURE);
    ASSERT_EQ(psp_init(), sOKAY);
    psp_term();
    EXPECT_EQ(begin(note, &runs, &thread), ePSP_FAILURE);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(runs, 0);
}

TEST_F(ThreadWithoutLibrary, AThreadCanBeJoinedAfterTheStop)
{
    ZYN_RETCODE code = eEOD;
    psp_thread_t thread{};
    ASSERT_EQ(psp_init(), sOKAY);
    ASSERT_EQ(begin(give_back, &code, &thread), sOKAY);
    psp_term();
    EXPECT_EQ(psp_threadJoin(&thread), eEOD);
    EXPECT_NE(pthread_equal(pthread_self(), psp_threadId()), 0);
}

// ---- Atomic operations ----

TEST(Atomic, CountsUpAndDownAndWrapsRound)
{
    std::uint32_t value = 0;
    psp_atomicIncrUInt32(&value);
    psp_atomicIncrUInt32(&value);
    EXPECT_EQ(value, 2u);
    psp_atomicDecrUInt32(&value);
    EXPECT_EQ(value, 1u);
    psp_atomicDecrUInt32(&value);
    psp_atomicDecrUInt32(&value);
    EXPECT_EQ(value, UINT32_MAX);
    psp_atomicIncrUInt32(&value);
    EXPECT_EQ(value, 0u);
}

TEST(Atomic, ReplacesOnlyTheExpectedValue)
{
    std::uint32_t value = 5;
    EXPECT_EQ(psp_atomicSetUInt32(&value, 4, 7), 0u);
    EXPECT_EQ(value, 5u);
    EXPECT_EQ(psp_atomicSetUInt32(&value, 5, 7), 1u);
    EXPECT_EQ(value, 7u);
    EXPECT_EQ(psp_atomicSetUInt32(&value, 7, 7), 1u);
    EXPECT_EQ(psp_atomicSetUInt32(&value, 7, UINT32_MAX), 1u);
    EXPECT_EQ(psp_atomicSetUInt32(&value, UINT32_MAX, 0), 1u);
    EXPECT_EQ(value, 0u);
}

TEST(Atomic, TouchesNothingBesideTheValue)
{
    std::uint32_t values[3] = {0x11111111, UINT32_MAX, 0x33333333};
    psp_atomicIncrUInt32(&values[1]);
    EXPECT_EQ(values[1], 0u);
    psp_atomicDecrUInt32(&values[1]);
    EXPECT_EQ(psp_atomicSetUInt32(&values[1], UINT32_MAX, 2), 1u);
    EXPECT_EQ(values[0], 0x11111111u);
    EXPECT_EQ(values[2], 0x33333333u);
}

TEST(Atomic, LosesNoUpdateOfConcurrentThreads)
{
    constexpr std::uint32_t rounds = 20000;
    std::uint32_t up = 0;
    std::uint32_t swapped = 0;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; thread++) {
        threads.emplace_back([&] {
            for (std::uint32_t i = 0; i < rounds; i++) {
                psp_atomicIncrUInt32(&up);
                psp_atomicIncrUInt32(&up);
                psp_atomicDecrUInt32(&up);
            }
            for (std::uint32_t done = 0, guess = 0; done < rounds / 10; guess++) {
                if (psp_atomicSetUInt32(&swapped, guess, guess + 1) != 0)
                    done++;
                else
                    guess = std::atomic_ref<std::uint32_t>(swapped).load() - 1;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(up, 4 * rounds);
    EXPECT_EQ(swapped, 4 * (rounds / 10));
}

} // namespace
