// Mutexes, keys and tags that cannot be made: the code that is told, nothing lost, and the library
// usable afterwards. And the legacy allocator's dealings with the heap.
#include "support/fault_test.h"
#include "support/mem_test.h"

#include "psp_mem_data_int.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using namespace psptest;

extern "C" void __real_free(void* ptr);

namespace {

class MemFault : public HeapFaultTest {};

class StartFault : public RawTest {
  protected:
    void TearDown() override
    {
        Fault::clear();
        RawTest::TearDown();
        EXPECT_EQ(live_heap_blocks(), blocks_);
    }

    // A start that failed has left nothing: the state is as before, and the next start works.
    void expect_untouched()
    {
        EXPECT_EQ(psp_inited, 0);
        EXPECT_EQ(memory_in_use(), 0u);
        EXPECT_EQ(LargeBlock.chunks, nullptr);
        EXPECT_EQ(live_heap_blocks(), blocks_);
        EXPECT_EQ(get(10, PSP_GLOBAL_TAG), nullptr);
    }
    void expect_start_works()
    {
        ASSERT_EQ(psp_init(), sOKAY);
        std::thread([] {
            EXPECT_NE(get(10, PSP_GLOBAL_TAG), nullptr);
            EXPECT_NE(get(10, PSP_THREAD_TAG), nullptr);
        }).join();
        psp_term();
    }

  private:
    long blocks_ = live_heap_blocks();
};

// ---- Start ----

TEST_F(StartFault, WithoutOneOfItsMutexesTellsWhich)
{
    for (const bool forever : {false, true})
        fail_every_call("psp_syncCreate_check", forever, [&](Fault& fault, int n) {
            const ZYN_RETCODE code = psp_init();
            fault.disarm();
            if (n <= 5) { // four of the memory layer, then the registry's
                EXPECT_EQ(code, n <= 4 ? ePSP_FAILURE : ePSP_MUTEX_FAILURE) << "mutex " << n;
            }
            if (code == sOKAY)
                psp_term();
            expect_untouched();
            expect_start_works();
        });
}

TEST_F(StartFault, WithoutATagForAnOutputStackUndoesItAll)
{
    // What the stacks say then is theirs; what matters here is that nothing stays behind.
    for (const char* point : {"psp_createTagEx", "psp_createTagEx_rc"})
        for (const bool forever : {false, true}) {
            const int runs = fail_every_call(point, forever, [&](Fault& fault, int) {
                const ZYN_RETCODE code = psp_init();
                fault.disarm();
                EXPECT_EQ(psp_inited, code == sOKAY ? 1 : 0);
                if (code == sOKAY)
                    psp_term();
                expect_untouched();
                expect_start_works();
            });
            EXPECT_GE(runs, 1) << point;
        }
}

TEST_F(StartFault, GivesItsThreadSpecificKeyBack)
{
    const char* const points[] = {"malloc", "psp_syncCreate_check", "psp_createTagEx"};
    for (const char* point : points)
        fail_every_call(point, true, [&](Fault& fault, int n) {
            Fault created("pthread_key_create");
            Fault deleted("pthread_key_delete");
            const ZYN_RETCODE code = psp_init();
            fault.disarm();
            if (code == sOKAY)
                psp_term();
            EXPECT_EQ(created.calls(), deleted.calls()) << point << " " << n;
        });
}

TEST_F(StartFault, OfASecondUserNeedsNothing)
{
    ASSERT_EQ(psp_init(), sOKAY);
    {
        Fault memory("malloc", 1, true);
        Fault key("pthread_key_create", 1, true);
        Fault mutex("psp_syncCreate_check", 1, true);
        EXPECT_EQ(psp_init(), sOKAY);
        EXPECT_EQ(memory.calls() + key.calls() + mutex.calls(), 0);
    }
    psp_term();
    psp_term();
}

// ---- Tags ----

TEST_F(MemFault, LegacyTagWithoutItsRecordIsRefused)
{
    const std::size_t before = memory_in_use();
    for (int i = 0; i < 200; i++) { // so many that lost records would show
        Fault fault("malloc", 1);
        PSP_MEMTAG tag = nullptr;
        EXPECT_EQ(psp_createTagEx_rc(nullptr, 0, LEGACY_ALLOCATOR, nullptr, nullptr, &tag, "", 0),
                  ePSP_FAILURE);
        EXPECT_EQ(tag, nullptr);
        EXPECT_EQ(fault.failures(), 1);
    }
    EXPECT_EQ(memory_in_use(), before);
}

TEST_F(MemFault, TagWithoutItsMutexGoesUnsynchronised)
{
    for (const PSP_ALLOCATOR_TYPE type : all_types) {
        Fault fault("psp_syncCreate_check", 1);
        PSP_MEMTAG tag = nullptr;
        EXPECT_EQ(psp_createTagEx_rc(nullptr, 1, type, nullptr, nullptr, &tag, "", 0), sOKAY);
        EXPECT_EQ(fault.failures(), 1);
        ASSERT_NE(tag, nullptr);
        EXPECT_EQ(tag->t_sem, PSP_SEM_INVALID);
        EXPECT_NE(get(10, tag), nullptr);
        empty_tag(tag);
        destroy_tag(tag);
    }
}

TEST_F(MemFault, ThreadTagThatCannotBeMadeIsNone)
{
    {
        Fault fault("large_block", 1, true);
        while (make_tag(LIST_ALLOCATOR) != nullptr)
            ;
        EXPECT_EQ(get(10, PSP_THREAD_TAG), nullptr);
        void* block = &block;
        EXPECT_EQ(psp_getMem_rc(10, PSP_THREAD_TAG, 1, nullptr, &block, "", 0), eNOMEMORY);
        PSP_TAG_MEM_INFO info{};
        EXPECT_EQ(psp_getTagMemInfo(PSP_THREAD_TAG, &info), ePSP_FAILURE);
        psp_resetTag(nullptr, PSP_THREAD_TAG);
        release(&info, PSP_THREAD_TAG);
    }
    EXPECT_NE(get(10, PSP_THREAD_TAG), nullptr);
}

TEST_F(MemFault, ThreadTagThatCannotBeRememberedIsDestroyed)
{
    const std::size_t before = memory_in_use();
    const TAG_ENTRY* const tail = taglisttail;
    for (int i = 0; i < 100; i++) {
        Fault fault("pthread_setspecific", 1);
        EXPECT_EQ(get(10, PSP_THREAD_TAG), nullptr);
        EXPECT_EQ(fault.failures(), 1);
        EXPECT_EQ(taglisttail, tail);
    }
    EXPECT_EQ(memory_in_use(), before);
    EXPECT_NE(get(10, PSP_THREAD_TAG), nullptr);
}

TEST_F(MemFault, ThreadTagThatCannotBeRememberedAgainLosesItsMemory)
{
    std::thread([] {
        ASSERT_NE(get(1000000, PSP_THREAD_TAG), nullptr);
        const std::size_t held = memory_in_use();
        Fault fault("pthread_setspecific", 1);
        EXPECT_EQ(get(10, PSP_THREAD_TAG), nullptr);
        EXPECT_EQ(fault.failures(), 1);
        EXPECT_LE(memory_in_use(), held - 1000000);
        // The thread goes on with an empty tag.
        EXPECT_NE(get(10, PSP_THREAD_TAG), nullptr);
        EXPECT_EQ(info_of(PSP_THREAD_TAG).used.current, 10u);
    }).join();
}

TEST_F(MemFault, OnlyATagWithAMutexIsLockedForABlock)
{
    PSP_MEMTAG shared = make_tag(BLOCK_ALLOCATOR, 1);
    PSP_MEMTAG own = make_tag();
    for (PSP_MEMTAG tag : {shared, PSP_GLOBAL_TAG, own, PSP_THREAD_TAG}) {
        const int once = tag == shared || tag == PSP_GLOBAL_TAG ? 1 : 0;
        release(get(10, tag), tag); // from here on the class has free blocks
        Fault lock("pthread_mutex_lock");
        Fault unlock("pthread_mutex_unlock");
        void* block = get(10, tag);
        EXPECT_EQ(lock.calls(), once);
        EXPECT_EQ(unlock.calls(), once);
        release(block, tag);
        EXPECT_EQ(lock.calls(), 2 * once);
        EXPECT_EQ(unlock.calls(), 2 * once);
    }
    destroy_tag(shared);
    destroy_tag(own);
}

// ---- The legacy allocator and the heap ----

TEST_F(MemFault, LegacyBlockWithoutMemoryLeavesTheList)
{
    PSP_MEMTAG tag = make_tag(LEGACY_ALLOCATOR);
    void* block = get(10, tag);
    auto* const entry = static_cast<LEGACY_ALLOCATOR_ENTRY*>(tag->t_allocator);
    LEGACY_HDR* const first = entry->a_first;
    {
        Fault memory("malloc", 1, true);
        Fault more("realloc", 1, true);
        EXPECT_EQ(get(10, tag), nullptr);
        EXPECT_EQ(extend(block, 20, tag), nullptr);
    }
    EXPECT_EQ(entry->a_first, first);
    EXPECT_EQ(first->next, nullptr);
    EXPECT_NE(get(10, tag), nullptr);
    destroy_tag(tag);
}

TEST_F(MemFault, LegacyBlocksGoBackToTheHeapOneByOneAndAllAtOnce)
{
    const long before = live_heap_blocks();
    PSP_MEMTAG tag = make_tag(LEGACY_ALLOCATOR);
    EXPECT_EQ(live_heap_blocks(), before + 1) << "the record comes from the heap too";
    void* a = get(10, tag);
    get(20, tag);
    get(30, tag);
    EXPECT_EQ(live_heap_blocks(), before + 4);
    release(a, tag);
    EXPECT_EQ(live_heap_blocks(), before + 3);
    empty_tag(tag);
    EXPECT_EQ(live_heap_blocks(), before + 1);
    destroy_tag(tag);
    EXPECT_EQ(live_heap_blocks(), before);
}

// Puts freed memory aside instead of giving it to the heap, so that its header stays readable.
std::vector<void*> set_aside;

void put_aside(void* ptr)
{
    set_aside.push_back(ptr);
}

TEST_F(MemFault, LegacyBlockFreedTwiceIsNoticed)
{
    PSP_MEMTAG tag = make_tag(LEGACY_ALLOCATOR);
    void* block = get(10, tag);
    void* other = get(10, tag);
    const long before = live_heap_blocks();
    Fault::replace("free", put_aside);
    release(block, tag);
    EXPECT_EQ(live_heap_blocks(), before - 1);
    CapturedFd out(1);
    release(block, tag);
    EXPECT_EQ(out.finish(), "Attempting to free previously freed memory\n");
    EXPECT_EQ(live_heap_blocks(), before - 1) << "nothing is freed the second time";
    release(other, tag);
    EXPECT_EQ(live_heap_blocks(), before - 2);
    Fault::clear();
    destroy_tag(tag);
    for (void* ptr : set_aside)
        __real_free(ptr);
    set_aside.clear();
}

} // namespace
