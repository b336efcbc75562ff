// Start and stop from many threads at once, and what lives from one start to the stop: named
// globals, the tags of threads, destinations of the log. Each run of the library must begin and end
// clean, whichever thread happens to be the first one in or the last one out.
#include "support/mem_test.h"
#include "support/scale.h"
#include "support/threads.h"

#include "psp/global.h"
#include "psp/output.h"
#include "psp_mem_data_int.h"

#include <atomic>
#include <barrier>
#include <cstring>
#include <set>
#include <string>
#include <vector>

using namespace psptest;

namespace {

constexpr int users = 8;

class RestartStress : public RawTest {};

// Plain: the library's own locks keep a run's creation and removal apart from the others'.
int live_globals = 0;
int globals_made = 0;
int globals_removed = 0;

ZYN_RETCODE make_global(void* block)
{
    EXPECT_TRUE(holds(block, 64, 0));
    std::memset(block, 7, 64);
    EXPECT_EQ(++live_globals, 1) << "a second one in one run";
    globals_made++;
    return sOKAY;
}

void remove_global(void* block)
{
    EXPECT_TRUE(holds(block, 64, 7));
    EXPECT_EQ(--live_globals, 0);
    globals_removed++;
}

// Few users make many runs, many users make few that change hands often.
TEST_F(RestartStress, EveryRunMakesAndRemovesItsGlobalOnce)
{
    const int rounds = in_long_run(under_tsan || under_asan ? 200 : 2000, 50000);
    std::atomic<int> uses{0};
    for (const int crowd : {2, 3, users})
        run_together(crowd, [&](int number) {
            for (int i = 0; i < rounds; i++) {
                ASSERT_EQ(psp_init(), sOKAY);
                void* block = nullptr;
                ASSERT_EQ(psp_globalGet("restart", 64, make_global, remove_global, &block), sOKAY);
                ASSERT_TRUE(holds(block, 64, 7));
                uses++;
                if ((i + number) % 4 == 0)
                    std::this_thread::yield();
                psp_term();
                if (i % 2 == 0)
                    std::this_thread::yield();
            }
        });
    EXPECT_EQ(uses, (2 + 3 + users) * rounds);
    EXPECT_EQ(live_globals, 0);
    EXPECT_EQ(globals_made, globals_removed);
    EXPECT_GE(globals_made, 3);
    EXPECT_LE(globals_made, uses);
}

TEST_F(RestartStress, ARunningLibraryKeepsWhatItHoldsThroughTheStartsOfOthers)
{
    const int rounds = in_long_run(under_tsan ? 200 : 2000, 100000);
    ASSERT_EQ(psp_init(), sOKAY);
    void* block = nullptr;
    ASSERT_EQ(psp_globalGet("kept", 64, nullptr, nullptr, &block), sOKAY);
    std::memset(block, 9, 64);
    run_together(users, [&](int) {
        for (int i = 0; i < rounds; i++) {
            ASSERT_EQ(psp_init(), sOKAY);
            void* same = nullptr;
            ASSERT_EQ(psp_globalGet("kept", 64, nullptr, nullptr, &same), sOKAY);
            ASSERT_EQ(same, block);
            psp_term();
        }
    });
    EXPECT_EQ(psp_inited, 1);
    EXPECT_TRUE(holds(block, 64, 9));
    psp_term();
}

std::size_t tags_in_list()
{
    std::size_t count = 0;
    for (const TAG_ENTRY* tag = taglisthead; tag != nullptr; tag = tag->t_next)
        count++;
    return count;
}

TEST_F(RestartStress, ThreadsMayEndBeforeTheirTags)
{
    static constexpr std::size_t size = 3000;
    const int generations = in_long_run(10, 500);
    for (int run = 0; run < 3; run++) {
        ASSERT_EQ(psp_init(), sOKAY);
        const std::size_t tags = tags_in_list();
        std::set<void*> blocks;
        for (int generation = 0; generation < generations; generation++) {
            void* made[users] = {};
            run_together(users, [&made](int number) {
                EXPECT_EQ(info_of(PSP_THREAD_TAG).used.current, 0u) << "not a dead thread's";
                made[number] = get(size, PSP_THREAD_TAG);
                std::memset(made[number], number, size);
                release(get(50, PSP_THREAD_TAG), PSP_THREAD_TAG);
                EXPECT_EQ(info_of(PSP_THREAD_TAG).used.current, size);
            });
            for (int number = 0; number < users; number++) {
                EXPECT_TRUE(holds(made[number], size, number)) << "outlives its thread";
                blocks.insert(made[number]);
            }
        }
        const auto threads = static_cast<std::size_t>(users * generations);
        EXPECT_EQ(blocks.size(), threads);
        EXPECT_EQ(tags_in_list(), tags + threads) << "one tag a thread, until the stop";
        psp_term();
        EXPECT_EQ(memory_in_use(), 0u);
    }
}

TEST_F(RestartStress, LivingThreadsGetNewTagsAfterEveryStart)
{
    const int runs = in_long_run(20, 1000);
    std::barrier meet(users);
    run_together(users, [&](int number) {
        for (int run = 0; run < runs; run++) {
            // Another thread starts each time, and another one stops.
            if (number == run % users) {
                ASSERT_EQ(psp_init(), sOKAY);
            }
            meet.arrive_and_wait();
            EXPECT_EQ(info_of(PSP_THREAD_TAG).used.max, 0u);
            auto* const block = get(500, PSP_THREAD_TAG, PSP_MEM_ZERO);
            EXPECT_TRUE(holds(block, 500, 0));
            std::memset(block, number, 500);
            meet.arrive_and_wait();
            EXPECT_TRUE(holds(block, 500, number));
            EXPECT_EQ(info_of(PSP_THREAD_TAG).used.current, 500u);
            meet.arrive_and_wait();
            if (number == (run + 3) % users) {
                psp_term();
                EXPECT_EQ(memory_in_use(), 0u);
            }
            meet.arrive_and_wait();
            EXPECT_EQ(get(10, PSP_THREAD_TAG), nullptr);
            meet.arrive_and_wait();
        }
    });
}

TEST_F(RestartStress, EveryRunHasAnOutputOfItsOwn)
{
    const int runs = in_long_run(under_tsan ? 50 : 200, 5000);
    const TempDir dir;
    const std::size_t descriptors = open_descriptors();
    run_together(users, [&](int number) {
        for (int i = 0; i < runs; i++) {
            ASSERT_EQ(psp_init(), sOKAY);
            PSP_LOG_CTX ctx;
            const std::string name = dir / ("log" + std::to_string(number));
            ASSERT_EQ(psp_log_initCtx(&ctx), sOKAY);
            ASSERT_EQ(psp_log_openEx(&ctx, name.c_str()), sOKAY);
            ASSERT_EQ(psp_stdout_openEx(&ctx, nullptr), sOKAY);
            psp_logEx(&ctx, "%d:%d\n", number, i);
            psp_log_termCtx(&ctx);
            const std::string text = read_file(name);
            const std::string line = "]  " + std::to_string(number) + ":" + std::to_string(i);
            ASSERT_TRUE(text.ends_with(line + "\n")) << text;
            psp_term();
        }
    });
    EXPECT_EQ(open_descriptors(), descriptors);
}

} // namespace
