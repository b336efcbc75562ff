// What a start sets up inside the library, and what is still there at each point of a stop.
#include "support/psp_test.h"

#include "psp.h"
#include "psp_mem_data_int.h"
#include "psp_sync_int.h"

#include <atomic>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

using namespace psptest;

namespace {

class Start : public PspTest {};
class Stop : public RawTest {};

// ---- After the start ----

TEST_F(Start, BuildsTheStaticListTag)
{
    EXPECT_EQ(static_list_tag.t_allocator, &static_list_allocator);
    EXPECT_EQ(static_list_tag.t_jmpbuf, nullptr);
    EXPECT_EQ(static_list_tag.t_destroy_fcn, nullptr);
    EXPECT_EQ(static_list_tag.t_destroy_ctx, nullptr);
    EXPECT_EQ(static_list_allocator.blocksize, 4096u);
    EXPECT_EQ(static_list_allocator.alloc_fcn, &psp_allocLargeBlock);
    EXPECT_EQ(static_list_allocator.free_fcn, &psp_freeLargeBlock);
    const ALLOCATOR_FCNS& fcns = static_list_tag.t_fcns;
    EXPECT_EQ(fcns.destroy_fcn, &list_allocator_destroy);
    EXPECT_EQ(fcns.alloc_fcn, &list_allocator_alloc);
    EXPECT_EQ(fcns.realloc_fcn, &list_allocator_realloc);
    EXPECT_EQ(fcns.free_fcn, &list_allocator_free);
    EXPECT_EQ(fcns.free_all_fcn, &list_allocator_free_all);
    EXPECT_EQ(fcns.get_size_fcn, &list_allocator_get_size);
    EXPECT_EQ(fcns.mem_info_fcn, nullptr);
}

TEST_F(Start, MakesTheGlobalTagFirst)
{
    ASSERT_NE(tagGlobal, nullptr);
    EXPECT_EQ(taglisthead, tagGlobal);
    EXPECT_EQ(tagGlobal->t_prev, nullptr);
    EXPECT_EQ(tagGlobal->t_jmpbuf, nullptr);
    EXPECT_EQ(tagGlobal->t_destroy_fcn, nullptr);
    EXPECT_EQ(getCorrectTag(PSP_GLOBAL_TAG), tagGlobal);
    // It has its mutex although it was made before there were any.
    for (const PSP_SEM sem : {tagGlobal->t_sem, tagTabSem, largeBlockSem, static_list_tag.t_sem}) {
        ASSERT_NE(sem, PSP_SEM_INVALID);
        EXPECT_EQ(sem->type, PSP_SEM_MUTEX);
        EXPECT_EQ(sem->obj.m.count, 0) << "nothing is left locked";
    }
}

TEST_F(Start, LeavesTheCallingThreadWithoutATag)
{
    EXPECT_EQ(pthread_getspecific(tagTLSkey), nullptr);
    ASSERT_NE(getCorrectTag(PSP_THREAD_TAG), nullptr);
    EXPECT_EQ(pthread_getspecific(tagTLSkey), getCorrectTag(PSP_THREAD_TAG));
}

TEST_F(Start, LeavesNoMutexHeld)
{
    const PSP_SEM_TABLE& slot = sem_table[0];
    for (int i = 0; i < slot.untouched; i++) {
        const PSP_SEM_ENTRY& entry = slot.entry[i];
        if (entry.type == PSP_SEM_MUTEX) {
            EXPECT_EQ(entry.obj.m.count, 0) << "entry " << i;
        }
    }
    EXPECT_EQ(pthread_mutex_trylock(&semTabMutex), 0);
    pthread_mutex_unlock(&semTabMutex);
    // Not even another thread can find the critical section taken.
    std::thread([] {
        psp_enterCritSec();
        psp_exitCritSec();
    }).join();
}

TEST(StartSignal, IgnoresBrokenPipes)
{
    EXPECT_EQ(run_in_child([] {
                  signal(SIGPIPE, SIG_DFL);
                  EXPECT_EQ(psp_init(), sOKAY);
                  struct sigaction action {};
                  sigaction(SIGPIPE, nullptr, &action);
                  EXPECT_EQ(action.sa_handler, SIG_IGN);
                  psp_term();
                  return 0;
              }),
              0);
}

// ---- During the stop ----

// What can be seen at one point of the stop.
struct Sight {
    std::string who;
    std::int32_t inited;
    std::int32_t terminating;
    bool locks_usable;
    bool can_create_lock;
    int printed;
};

std::vector<Sight> sights;

void look(const char* who)
{
    const PSP_SEM sem = psp_syncCreate_check(PSP_SEM_MUTEX, __FILE__, __LINE__);
    sights.push_back({who, psp_inited, psp_terminating, psp_sync_inited, sem != PSP_SEM_INVALID,
                      psp_printf("%s", "never seen")});
}

void look_from_global(void* name)
{
    look(static_cast<const char*>(name));
}

void look_from_tag(void* name)
{
    look(static_cast<const char*>(name));
}

// A named global whose block holds its own name.
void add_global(const char* name)
{
    void* data = nullptr;
    ASSERT_EQ(psp_globalGet(name, 32, nullptr, look_from_global, &data), sOKAY);
    std::strcpy(static_cast<char*>(data), name);
}

PSP_MEMTAG add_tag(char* name)
{
    return psp_createTagEx(nullptr, 0, BLOCK_ALLOCATOR, look_from_tag, name, __FILE__, __LINE__);
}

TEST_F(Stop, TakesOutputThenGlobalsThenLocksThenMemory)
{
    char first[] = "first tag";
    char second[] = "second tag";
    sights.clear();
    ASSERT_EQ(psp_init(), sOKAY);
    ASSERT_NE(add_tag(first), nullptr);
    ASSERT_NE(add_tag(second), nullptr);
    add_global("a global");
    add_global("the last global");
    CapturedFd out(1);
    psp_term();
    EXPECT_EQ(out.finish(), "") << "the output stacks end first";

    ASSERT_EQ(sights.size(), 4u);
    EXPECT_EQ(sights[0].who, "the last global");
    EXPECT_EQ(sights[1].who, "a global");
    for (const Sight& sight : sights) {
        EXPECT_EQ(sight.inited, 1) << sight.who;
        EXPECT_EQ(sight.terminating, 1) << sight.who;
        EXPECT_EQ(sight.printed, 0) << sight.who;
    }
    for (int i = 0; i < 2; i++) {
        EXPECT_TRUE(sights[static_cast<std::size_t>(i)].locks_usable);
        EXPECT_TRUE(sights[static_cast<std::size_t>(i)].can_create_lock);
    }
    for (int i = 2; i < 4; i++) {
        EXPECT_FALSE(sights[static_cast<std::size_t>(i)].locks_usable);
        EXPECT_FALSE(sights[static_cast<std::size_t>(i)].can_create_lock);
    }
    EXPECT_EQ(sights[2].who, first) << "tags go in the order of their creation";
    EXPECT_EQ(sights[3].who, second);
}

TEST_F(Stop, ForgetsTheCachedTemporaryDirectory)
{
    const TempDir first;
    const TempDir second;
    const auto chosen_in = [](const char* environment) {
        unsetenv("ZYN_TMPDIR"); // it is never cached
        setenv("TMPDIR", environment, 1);
        EXPECT_EQ(psp_init(), sOKAY);
        const char* const dir = psp_tmpdir(PSP_GLOBAL_TAG);
        const std::string copy = dir != nullptr ? dir : "";
        psp_term();
        return copy;
    };
    const int status = run_in_child([&] { // the environment is the process's
        EXPECT_EQ(chosen_in(first.c_str()), first.path());
        EXPECT_EQ(chosen_in(second.c_str()), second.path());
        return 0;
    });
    EXPECT_EQ(status, 0);
}

TEST_F(Stop, LeavesNoHandleOfTheMemoryLayer)
{
    ASSERT_EQ(psp_init(), sOKAY);
    ASSERT_NE(psp_getMem(10, PSP_THREAD_TAG, 1, nullptr, __FILE__, __LINE__), nullptr);
    psp_term();
    EXPECT_EQ(tagTabSem, PSP_SEM_INVALID);
    EXPECT_EQ(largeBlockSem, PSP_SEM_INVALID);
    EXPECT_EQ(static_list_tag.t_sem, PSP_SEM_INVALID);
    EXPECT_EQ(tagGlobal, nullptr);
    EXPECT_EQ(taglisthead, nullptr);
    EXPECT_EQ(taglisttail, nullptr);
    EXPECT_EQ(static_list_allocator.chunks, nullptr);
}

TEST_F(Stop, ReleasesTheTagsOfThreadsThatStillRun)
{
    ASSERT_EQ(psp_init(), sOKAY);
    std::atomic<int> step{0};
    std::thread other([&] {
        EXPECT_NE(psp_getMem(10, PSP_THREAD_TAG, 1, nullptr, __FILE__, __LINE__), nullptr);
        step = 1;
        while (step != 2)
            std::this_thread::yield();
        // The library was stopped and started meanwhile: this is a fresh tag.
        void* const block = psp_getMem(10, PSP_THREAD_TAG, 1, nullptr, __FILE__, __LINE__);
        EXPECT_NE(block, nullptr);
        psp_freeMem(block, PSP_THREAD_TAG, __FILE__, __LINE__);
    });
    while (step != 1)
        std::this_thread::yield();
    psp_term();
    EXPECT_EQ(memory_in_use(), 0u);
    ASSERT_EQ(psp_init(), sOKAY);
    step = 2;
    other.join();
    psp_term();
}

} // namespace
