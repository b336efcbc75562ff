// Memory tags, the registry and pools under several threads. What is wrong here shows as a
// pattern overwritten, as bytes in use that do not come back, or under a thread checker.
#include "support/mem_test.h"
#include "support/scale.h"
#include "support/threads.h"

#include "psp/global.h"
#include "psp/pool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <functional>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace psptest;

namespace {

constexpr int thread_count = 4;
const int rounds = in_long_run(under_tsan || under_asan ? 2000 : 20000, 500000);

// Runs `body(number)` in threads that start together.
template <class Body>
void in_threads(Body body, int count = thread_count)
{
    run_together(count, body);
}

// Random allocations, resizes and releases under one tag, each block with a pattern of its own.
// What is live in the end is released.
void random_work(PSP_MEMTAG tag, unsigned seed, int steps)
{
    struct Block {
        unsigned char* ptr;
        std::size_t size;
        int pattern;
    };
    std::mt19937 random(seed);
    std::vector<Block> live;
    for (int i = 0; i < steps; i++) {
        const unsigned dice = random() % 10;
        const std::size_t size = 1 + random() % (dice == 9 ? 20000 : 200);
        if (live.empty() || (dice < 5 && live.size() < 60)) {
            const int pattern = static_cast<int>(random() % 256);
            auto* ptr = static_cast<unsigned char*>(get(size, tag));
            ASSERT_NE(ptr, nullptr);
            std::memset(ptr, pattern, size);
            live.push_back({ptr, size, pattern});
            continue;
        }
        Block& block = live[random() % live.size()];
        ASSERT_TRUE(holds(block.ptr, block.size, block.pattern));
        if (dice < 8) {
            release(block.ptr, tag);
            block = live.back();
            live.pop_back();
        } else {
            const std::size_t kept = std::min(size, block.size);
            block.ptr = static_cast<unsigned char*>(extend(block.ptr, size, tag));
            ASSERT_NE(block.ptr, nullptr);
            ASSERT_TRUE(holds(block.ptr, kept, block.pattern));
            block.size = size;
            std::memset(block.ptr, block.pattern, size);
        }
    }
    for (const Block& block : live)
        release(block.ptr, tag);
}

class MemStress : public PspTest {};
class MemRestart : public RawTest {};

TEST_F(MemStress, ThreadsShareASynchronisedTag)
{
    const std::size_t before = memory_in_use();
    for (const PSP_ALLOCATOR_TYPE type : {BLOCK_ALLOCATOR, LIST_ALLOCATOR, LEGACY_ALLOCATOR}) {
        PSP_MEMTAG tag = make_tag(type, 1);
        in_threads([tag](int i) { random_work(tag, static_cast<unsigned>(i) + 1, rounds); });
        // A list tag counts unevenly: blocks taken whole leave more than they brought.
        EXPECT_TRUE(type == LIST_ALLOCATOR || info_of(tag).used.current == 0);
        destroy_tag(tag);
        EXPECT_EQ(memory_in_use(), before);
    }
}

// A stack tag counts all that was ever taken, also what was released or emptied.
TEST_F(MemStress, ThreadsShareASynchronisedStackTag)
{
    const std::size_t before = memory_in_use();
    PSP_MEMTAG tag = make_tag(STACK_ALLOCATOR, 1);
    std::atomic<std::size_t> taken{0};
    for (int lap = 0; lap < 5; lap++) {
        in_threads([tag, &taken](int i) {
            std::mt19937 random(static_cast<unsigned>(i));
            std::vector<std::pair<void*, std::size_t>> blocks;
            for (int step = 0; step < rounds / 10; step++) {
                const std::size_t size = 8 * (1 + random() % 40);
                blocks.emplace_back(get(size, tag), size);
                std::memset(blocks.back().first, step + i, size);
                taken += size;
            }
            for (std::size_t step = 0; step < blocks.size(); step++)
                ASSERT_TRUE(holds(blocks[step].first, blocks[step].second,
                                  (static_cast<int>(step) + i) & 255));
        });
        EXPECT_EQ(info_of(tag).used.current, taken);
        empty_tag(tag);
    }
    destroy_tag(tag);
    EXPECT_EQ(memory_in_use(), before);
}

TEST_F(MemStress, ThreadsShareTheGlobalTag)
{
    const std::size_t before = info_of(PSP_GLOBAL_TAG).used.current;
    in_threads([](int i) { random_work(PSP_GLOBAL_TAG, static_cast<unsigned>(i) + 9, rounds); });
    EXPECT_EQ(info_of(PSP_GLOBAL_TAG).used.current, before);
}

TEST_F(MemStress, EveryThreadHasItsOwnTag)
{
    void* first[thread_count] = {};
    in_threads([&first](int i) {
        first[i] = get(100, PSP_THREAD_TAG, 3);
        random_work(PSP_THREAD_TAG, static_cast<unsigned>(i) + 17, rounds);
        EXPECT_EQ(info_of(PSP_THREAD_TAG).used.current, 100u) << "nobody else used it";
        EXPECT_TRUE(holds(first[i], 100, 0));
    });
    for (int i = 0; i < thread_count; i++)
        for (int k = 0; k < i; k++)
            EXPECT_NE(first[i], first[k]);
}

TEST_F(MemStress, ThreadsMakeAndDestroyTags)
{
    const std::size_t before = memory_in_use();
    in_threads([](int i) {
        std::mt19937 random(static_cast<unsigned>(i));
        std::vector<PSP_MEMTAG> tags;
        for (int step = 0; step < rounds; step++) {
            if (tags.size() < 8 && random() % 2 == 0) {
                const auto type = static_cast<PSP_ALLOCATOR_TYPE>(random() % 4);
                tags.push_back(make_tag(type, static_cast<std::int16_t>(random() % 2)));
                ASSERT_NE(tags.back(), nullptr);
                ASSERT_NE(get(1 + random() % 5000, tags.back()), nullptr);
            } else if (!tags.empty()) {
                const std::size_t which = random() % tags.size();
                if (random() % 4 == 0) {
                    empty_tag(tags[which]);
                } else {
                    destroy_tag(tags[which]);
                    tags[which] = tags.back();
                    tags.pop_back();
                }
            }
        }
        for (PSP_MEMTAG tag : tags)
            destroy_tag(tag);
    });
    EXPECT_EQ(memory_in_use(), before);
}

TEST_F(MemStress, BlocksMoveBetweenTags)
{
    PSP_MEMTAG shared = make_tag(LIST_ALLOCATOR, 1);
    in_threads([shared](int i) {
        for (int step = 0; step < rounds; step++) {
            const std::size_t size = 1 + static_cast<std::size_t>(step * 7 % 300);
            void* block = get(size, PSP_THREAD_TAG);
            std::memset(block, i, size);
            block = move(block, size, shared, PSP_THREAD_TAG);
            ASSERT_TRUE(holds(block, size, i));
            block = move(block, size, PSP_GLOBAL_TAG, shared);
            ASSERT_TRUE(holds(block, size, i));
            release(block, PSP_GLOBAL_TAG);
        }
        EXPECT_EQ(info_of(PSP_THREAD_TAG).used.current, 0u);
    });
    destroy_tag(shared);
}

TEST_F(MemStress, StatisticsCanBeReadWhileOthersWork)
{
    PSP_MEMTAG tag = make_tag(BLOCK_ALLOCATOR, 1);
    std::atomic<bool> done{false};
    std::thread reader([&] {
        std::size_t highest = 0;
        while (!done) {
            std::size_t current = 0;
            std::size_t maximum = 0;
            psp_getMemUsage(&current, &maximum);
            EXPECT_GE(maximum, highest) << "a high-water mark never falls";
            highest = maximum;
            info_of(tag);
            std::this_thread::yield();
        }
    });
    in_threads([tag](int i) { random_work(tag, static_cast<unsigned>(i) + 33, rounds); }, 2);
    done = true;
    reader.join();
    destroy_tag(tag);
}

// Callbacks run under a lock of the library. They give the others a chance to break in.
ZYN_RETCODE count_creation(void* block)
{
    std::this_thread::yield();
    ++*static_cast<int*>(block);
    return sOKAY;
}

TEST_F(MemStress, ANamedGlobalIsMadeOnceForAllThreads)
{
    constexpr int users = 8;
    const int names = in_long_run(60, 3000);
    std::vector<void*> blocks[users];
    run_together(users, [&](int user) {
        blocks[user].resize(static_cast<std::size_t>(names));
        for (int i = 0; i < names; i++) {
            const int k = (i + user % 2) % names; // half of them one name ahead
            const std::string name = "global" + std::to_string(k * 7 % names);
            void*& block = blocks[user][static_cast<std::size_t>(k)];
            ASSERT_EQ(psp_globalGet(name.c_str(), 64, count_creation, nullptr, &block), sOKAY);
            ASSERT_EQ(*static_cast<int*>(block), 1) << "ready when anybody gets it";
        }
    });
    for (std::size_t k = 0; k < blocks[0].size(); k++) {
        EXPECT_EQ(*static_cast<int*>(blocks[0][k]), 1);
        for (int user = 1; user < users; user++)
            EXPECT_EQ(blocks[user][k], blocks[0][k]);
    }
    EXPECT_EQ(std::set<void*>(blocks[0].begin(), blocks[0].end()).size(), blocks[0].size());
}

// The registry's mutex guards the callbacks, so the count needs no lock of its own.
int attempts = 0;

// Accepts every third block, whoever asks.
ZYN_RETCODE refuse_twice(void* block)
{
    EXPECT_TRUE(holds(block, 16, 0)) << "a refused block must not come back as it was";
    std::memset(block, 1, 16);
    std::this_thread::yield();
    return attempts++ % 3 == 2 ? sOKAY : ePSP_FAILURE;
}

TEST_F(MemStress, ARefusedGlobalIsTriedAnewUntilItIsMadeOnce)
{
    constexpr int users = 8;
    const int names = in_long_run(40, 2000);
    std::vector<std::atomic<int>> made(static_cast<std::size_t>(names));
    std::vector<std::atomic<void*>> blocks(static_cast<std::size_t>(names));
    std::atomic<int> failures{0};
    run_together(users, [&](int) {
        for (int k = 0; k < names; k++) {
            const std::string name = "refused" + std::to_string(k);
            const auto at = static_cast<std::size_t>(k);
            void* block = nullptr;
            while (psp_globalGet(name.c_str(), 16, refuse_twice, nullptr, &block) != sOKAY)
                failures++;
            ASSERT_TRUE(holds(block, 16, 1));
            made[at]++;
            void* first = nullptr;
            if (!blocks[at].compare_exchange_strong(first, block)) {
                ASSERT_EQ(first, block);
            }
        }
    });
    EXPECT_EQ(attempts, 3 * names);
    EXPECT_EQ(failures, 2 * names);
    for (const std::atomic<int>& count : made)
        EXPECT_EQ(count, users);
}

// The pool's mutex guards the callbacks too.
int constructions = 0;

void construct(PSP_POOL_USERDATA, void* object)
{
    const int before = constructions;
    std::memset(object, 0, 32);
    std::this_thread::yield();
    constructions = before + 1;
}

void destruct(PSP_POOL_USERDATA, const void*)
{
    const int before = constructions;
    std::this_thread::yield();
    constructions = before - 1;
}

TEST_F(MemStress, ThreadsShareAPool)
{
    const std::size_t before = info_of(PSP_GLOBAL_TAG).used.current;
    PSP_POOL pool = nullptr;
    ASSERT_EQ(psp_poolCreateEx(PSP_GLOBAL_TAG, PSP_POOL_VAR_SIZE, "lock", construct, destruct,
                               nullptr, &pool),
              sOKAY);
    psp_poolSetMaxPooled(pool, 3);
    in_threads([pool](int i) {
        std::mt19937 random(static_cast<unsigned>(i));
        for (int step = 0; step < rounds; step++) {
            const std::size_t size = 32 + random() % 64;
            void* object = psp_poolGetMem(pool, size, 1, nullptr, "", 0);
            ASSERT_NE(object, nullptr);
            std::memset(object, i + 1, size);
            std::this_thread::yield();
            ASSERT_TRUE(holds(object, size, i + 1));
            psp_poolPut(pool, object);
        }
    });
    EXPECT_LE(constructions, 3) << "what is idle, and no more";
    psp_poolDestroy(pool);
    EXPECT_EQ(constructions, 0);
    EXPECT_EQ(info_of(PSP_GLOBAL_TAG).used.current, before);
}

// A thread that does one step at a time, when told.
class SteppedThread {
  public:
    SteppedThread() : thread_([this] { run(); }) {}
    ~SteppedThread()
    {
        step({});
        thread_.join();
    }
    // Runs `work` on the thread and waits for its end; an empty one ends the thread.
    void step(std::function<void()> work)
    {
        std::unique_lock lock(mutex_);
        work_ = std::move(work);
        pending_ = true;
        changed_.notify_all();
        changed_.wait(lock, [this] { return !pending_; });
    }

  private:
    void run()
    {
        std::unique_lock lock(mutex_);
        for (;;) {
            changed_.wait(lock, [this] { return pending_; });
            const bool last = !work_;
            if (!last)
                work_();
            pending_ = false;
            changed_.notify_all();
            if (last)
                return;
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::function<void()> work_;
    bool pending_ = false;
    std::thread thread_;
};

TEST_F(MemRestart, TheTagOfALivingThreadDoesNotSurviveStopAndStart)
{
    SteppedThread other;
    for (int round = 0; round < 20; round++) {
        ASSERT_EQ(psp_init(), sOKAY);
        other.step([] {
            EXPECT_EQ(info_of(PSP_THREAD_TAG).used.current, 0u) << "a tag of its own, and new";
            EXPECT_EQ(info_of(PSP_THREAD_TAG).used.max, 0u);
            void* block = get(1000, PSP_THREAD_TAG, 3);
            EXPECT_TRUE(holds(block, 1000, 0));
            EXPECT_EQ(info_of(PSP_THREAD_TAG).used.current, 1000u);
        });
        if (round % 3 == 0) { // the starting thread has one only now and then
            EXPECT_NE(get(10, PSP_THREAD_TAG), nullptr);
        }
        psp_term();
        other.step([] { EXPECT_EQ(get(10, PSP_THREAD_TAG), nullptr); });
        EXPECT_EQ(memory_in_use(), 0u);
    }
}

TEST_F(MemRestart, AnotherThreadThanTheStartingOneMayStop)
{
    SteppedThread other;
    for (int round = 0; round < 10; round++) {
        ASSERT_EQ(psp_init(), sOKAY);
        EXPECT_NE(get(10, PSP_THREAD_TAG), nullptr);
        other.step([] {
            EXPECT_NE(get(10, PSP_THREAD_TAG), nullptr);
            psp_term();
        });
        EXPECT_EQ(psp_inited, 0);
        EXPECT_EQ(memory_in_use(), 0u);
    }
}

TEST_F(MemRestart, ThreadsStartAndStopTheLibrary)
{
    in_threads([](int i) {
        for (int round = 0; round < rounds / 20; round++) {
            ASSERT_EQ(psp_init(), sOKAY);
            PSP_MEMTAG tag = make_tag(BLOCK_ALLOCATOR, static_cast<std::int16_t>(i % 2));
            ASSERT_NE(get(100, tag), nullptr);
            ASSERT_NE(get(100, PSP_GLOBAL_TAG), nullptr);
            destroy_tag(tag);
            psp_term();
        }
    });
}

} // namespace
