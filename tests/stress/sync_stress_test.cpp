// Synchronisation objects, threads and the library's start under many threads at once. Shared data
// is plain wherever a lock of the library should guard it, so that the thread sanitizer sees a gap.
#include "support/mem_test.h"
#include "support/scale.h"
#include "support/threads.h"

#include "psp/sync.h"
#include "psp/thread.h"
#include "psp_sync_int.h"

#include <atomic>
#include <cstring>
#include <random>
#include <set>
#include <thread>
#include <vector>

using namespace psptest;

namespace {

constexpr int thread_count = 4;
const int rounds = in_long_run(under_tsan ? 10000 : 100000, 2000000);

class SyncStress : public PspTest {};
class StartStress : public RawTest {};
class GrowthStress : public RawTest {};

PSP_SEM make(int type)
{
    return psp_syncCreate_check(static_cast<std::int16_t>(type), __FILE__, __LINE__);
}

// Runs body(thread number) in several threads started by the library and waits for them.
template <class Body>
void in_threads(Body body)
{
    struct Task {
        Body* body;
        int number;
    };
    psp_thread_t threads[thread_count];
    std::vector<Task> tasks;
    for (int i = 0; i < thread_count; i++)
        tasks.push_back({&body, i});
    for (int i = 0; i < thread_count; i++) {
        const auto run = [](void* arg) -> ZYN_RETCODE {
            auto* const task = static_cast<Task*>(arg);
            (*task->body)(task->number);
            return task->number;
        };
        ASSERT_EQ(
            psp_threadBegin(run, 0, &tasks[static_cast<std::size_t>(i)], nullptr, &threads[i]),
            sOKAY);
    }
    for (int i = 0; i < thread_count; i++)
        EXPECT_EQ(psp_threadJoin(&threads[i]), i);
}

// True when nobody else uses the mutex: its record would tell.
bool is_mine(PSP_SEM sem)
{
    psp_syncEnterExcl(sem);
    psp_syncEnterExcl(sem);
    const bool alone = sem->obj.m.count == 2 && sem->type == PSP_SEM_MUTEX;
    psp_syncExitExcl(sem);
    psp_syncExitExcl(sem);
    return alone && sem->obj.m.count == 0;
}

std::size_t blocks_in_use()
{
    std::size_t blocks = 0;
    for (const PSP_SEM_TABLE& slot : sem_table)
        blocks += slot.entry != nullptr;
    return blocks;
}

std::size_t count_free()
{
    std::size_t free = 0;
    for (const PSP_SEM_TABLE& slot : sem_table) {
        if (slot.entry == nullptr)
            continue;
        std::size_t chain = 0;
        for (std::int16_t at = slot.avail; at != SEM_CHAIN_END && chain <= SEM_BLOCK_ENTRIES;
             at = sem_after(slot, at))
            chain++;
        EXPECT_LE(chain, SEM_BLOCK_ENTRIES);
        free += chain;
    }
    return free;
}

TEST_F(SyncStress, HandlesBelongToOneOwnerAtATime)
{
    std::atomic<int> clashes{0};
    in_threads([&](int number) {
        std::mt19937 random(static_cast<unsigned>(number));
        std::vector<PSP_SEM> own; // of all threads together more than a block
        for (int i = 0; i < rounds; i++) {
            if (own.empty() || (own.size() < 600 && random() % 5 < 3)) {
                own.push_back(make(PSP_SEM_MUTEX));
                clashes += is_mine(own.back()) ? 0 : 1;
            } else {
                std::swap(own[random() % own.size()], own.back());
                clashes += is_mine(own.back()) ? 0 : 1;
                psp_syncDelete(own.back());
                own.pop_back();
            }
        }
        for (const PSP_SEM sem : own) {
            clashes += is_mine(sem) ? 0 : 1;
            psp_syncDelete(sem);
        }
    });
    EXPECT_EQ(clashes, 0);
}

TEST_F(SyncStress, NoFreeEntryIsLostOrDoubled)
{
    const std::size_t before = count_free();
    in_threads([&](int number) {
        for (int i = 0; i < rounds; i++) {
            const PSP_SEM first = make(1 + (i + number) % 2);
            const PSP_SEM second = make(1 + i % 2);
            psp_syncDelete(first);
            psp_syncDelete(second);
        }
    });
    EXPECT_EQ(count_free(), before);
}

TEST_F(SyncStress, RecursiveMutexesGuardPlainData)
{
    constexpr int mutexes = 3;
    PSP_SEM sems[mutexes];
    long plain[mutexes] = {};
    for (PSP_SEM& sem : sems)
        sem = make(PSP_SEM_MUTEX);
    in_threads([&](int number) {
        std::mt19937 random(static_cast<unsigned>(100 + number));
        for (int i = 0; i < rounds; i++) {
            const unsigned which = random() % mutexes;
            const unsigned depth = 1 + random() % 4;
            for (unsigned level = 0; level < depth; level++) {
                psp_syncEnterExcl(sems[which]);
                plain[which]++;
            }
            for (unsigned level = 0; level < depth; level++) {
                plain[which]--;
                psp_syncExitExcl(sems[which]);
            }
        }
    });
    for (int i = 0; i < mutexes; i++) {
        EXPECT_EQ(plain[i], 0);
        EXPECT_EQ(sems[i]->obj.m.count, 0);
        psp_syncDelete(sems[i]);
    }
}

TEST_F(SyncStress, AMutexGoesFromThreadToThread)
{
    // Each waits for its turn under the mutex, and what it finds there was left by the one before.
    const int laps = in_long_run(300, 20000);
    const PSP_SEM sem = make(PSP_SEM_MUTEX);
    int turn = 0;
    std::vector<int> trace;
    in_threads([&](int number) {
        for (int lap = 0; lap < laps;) {
            psp_syncEnterExcl(sem);
            psp_syncEnterExcl(sem);
            const bool mine = turn % thread_count == number;
            if (mine) {
                trace.push_back(turn);
                turn++;
                lap++;
            }
            psp_syncExitExcl(sem);
            psp_syncExitExcl(sem);
            if (!mine)
                std::this_thread::yield();
        }
    });
    ASSERT_EQ(trace.size(), static_cast<std::size_t>(laps) * thread_count);
    for (std::size_t i = 0; i < trace.size(); i++)
        ASSERT_EQ(trace[i], static_cast<int>(i));
    EXPECT_EQ(sem->obj.m.count, 0);
    psp_syncDelete(sem);
}

TEST_F(SyncStress, EventsLoseNoSignal)
{
    // A ring: each thread waits for its own event and signals the next one.
    const int laps = rounds / 50;
    PSP_SEM events[thread_count];
    long plain = 0;
    for (PSP_SEM& event : events) {
        event = make(PSP_SEM_EVENT);
        psp_syncStart(event);
    }
    psp_syncResume(events[0]);
    in_threads([&](int number) {
        for (int lap = 0; lap < laps; lap++) {
            const std::uint32_t timeout = lap % 2 == 0 ? PSP_SYNC_FOREVER : 60000;
            if (psp_syncWait(events[number], timeout) != sOKAY)
                ADD_FAILURE() << "timeout";
            psp_syncStart(events[number]);
            plain++;
            psp_syncResume(events[(number + 1) % thread_count]);
        }
    });
    EXPECT_EQ(plain, static_cast<long>(laps) * thread_count);
    for (const PSP_SEM event : events)
        psp_syncDelete(event);
}

TEST_F(SyncStress, OneSignalReleasesAllWaitersEveryTime)
{
    const int laps = in_long_run(50, 1000);
    const PSP_SEM go = make(PSP_SEM_EVENT);
    std::uint32_t arrived = 0;
    for (int lap = 0; lap < laps; lap++) {
        psp_syncStart(go);
        psp_atomicSetUInt32(&arrived, thread_count, 0);
        std::thread starter([&] { psp_syncResume(go); });
        in_threads([&](int) {
            if (psp_syncWait(go, PSP_SYNC_FOREVER) == sOKAY)
                psp_atomicIncrUInt32(&arrived);
        });
        starter.join();
        ASSERT_EQ(arrived, static_cast<std::uint32_t>(thread_count));
    }
    psp_syncDelete(go);
}

// The table grows by blocks of the global tag while others use that tag and make tags with mutexes.
TEST_F(GrowthStress, TheTableGrowsWhileTheGlobalTagIsInUse)
{
    constexpr std::size_t objects = 700; // of one maker; four need more than two blocks
    for (int run = 0; run < in_long_run(5, 200); run++) {
        ASSERT_EQ(psp_init(), sOKAY);
        const std::size_t free = count_free();
        const std::size_t used = info_of(PSP_GLOBAL_TAG).used.current;
        std::vector<PSP_SEM> made[4];
        run_together(8, [&](int number) {
            if (number < 4) {
                for (std::size_t i = 0; i < objects; i++)
                    made[number].push_back(make(PSP_SEM_MUTEX));
                return;
            }
            for (int i = 0; i < 300; i++) {
                void* const block = get(200, PSP_GLOBAL_TAG, PSP_MEM_ZERO);
                const PSP_MEMTAG tag = make_tag(BLOCK_ALLOCATOR, 1);
                std::memset(block, number, 200);
                ASSERT_NE(get(100, tag), nullptr);
                destroy_tag(tag);
                ASSERT_TRUE(holds(block, 200, number));
                release(block, PSP_GLOBAL_TAG);
            }
        });
        const std::size_t grown = blocks_in_use() - 1;
        EXPECT_GE(grown, 2u);
        EXPECT_EQ(info_of(PSP_GLOBAL_TAG).used.current,
                  used + grown * SEM_BLOCK_ENTRIES * sizeof(PSP_SEM_ENTRY));
        EXPECT_EQ(count_free(), free + grown * SEM_BLOCK_ENTRIES - 4 * objects);
        std::set<PSP_SEM> distinct;
        for (const std::vector<PSP_SEM>& own : made)
            distinct.insert(own.begin(), own.end());
        EXPECT_EQ(distinct.size(), 4 * objects);
        run_together(4, [&](int number) {
            for (const PSP_SEM sem : made[number])
                psp_syncDelete(sem);
        });
        EXPECT_EQ(count_free(), free + grown * SEM_BLOCK_ENTRIES);
        psp_term();
        EXPECT_EQ(memory_in_use(), 0u);
    }
}

TEST_F(StartStress, EveryUserFindsARunningLibrary)
{
    std::vector<std::thread> users;
    std::atomic<int> failures{0};
    for (int user = 0; user < thread_count; user++) {
        users.emplace_back([&, user] {
            for (int i = 0; i < rounds / 50; i++) {
                if (psp_init() != sOKAY)
                    failures++;
                if (psp_init() != sOKAY)
                    failures++;
                psp_term();
                const PSP_MEMTAG tag = psp_createTagEx(nullptr, 1, BLOCK_ALLOCATOR, nullptr,
                                                       nullptr, __FILE__, __LINE__);
                if (psp_getMem(20, tag, 3, nullptr, __FILE__, __LINE__) == nullptr ||
                    psp_getMem(20, PSP_THREAD_TAG, 3, nullptr, __FILE__, __LINE__) == nullptr ||
                    psp_getMem(20, PSP_GLOBAL_TAG, 3, nullptr, __FILE__, __LINE__) == nullptr)
                    failures++;
                if (user % 2 == 0)
                    psp_freeTagMem(tag, ZYN_TRUE, __FILE__, __LINE__);
                psp_term();
            }
        });
    }
    for (std::thread& user : users)
        user.join();
    EXPECT_EQ(failures, 0);
}

} // namespace
